#include "model/ModelSkeleton.h"

#include <cmath>
#include <memory>
#include <sstream>
#include <utility>
#include <vector>

#include "layers/Messages.h"
#include "model/FormatFit.h"
#include "text/Numbers.h"

namespace mlnn {
namespace {

std::vector<float> finiteOnly(std::vector<float> values) {
  for (float& value : values) value = std::isfinite(value) ? value : 0.0f;
  return values;
}

std::string written(const MultiLayerNNModel& model, ModelFormat format) {
  if (format == ModelFormat::kText) {
    std::ostringstream out;
    writeText(model, kExactDigits, out);
    return out.str();
  }
  std::string whyNot;
  const std::optional<std::vector<char>> image = imageOf(model, whyNot);
  return image ? std::string(image->begin(), image->end()) : std::string();
}

}  // namespace

MultiLayerNNModel skeletonOf(const MultiLayerNNModel& model) {
  MultiLayerNNModel skeleton;
  for (const NNLayer* layer : model.layers) {
    const auto inputs = static_cast<int>(layer->weights.cols());
    auto copy = std::make_unique<NNLayer>(inputs, 0, layer->isBatchNorm);
    copy->actFn = layer->actFn;
    skeleton.layers.push_back(copy.get());
    copy.release();
  }
  skeleton.featureDesc = model.featureDesc;
  skeleton.deltasNorm = model.deltasNorm;
  skeleton.props = model.props;
  skeleton.notes = model.notes;
  skeleton.loss = finiteOnly(model.loss);
  skeleton.accuracy = finiteOnly(model.accuracy);
  skeleton.useSoftmax = model.useSoftmax;
  return skeleton;
}

MultiLayerNNModel readBack(const MultiLayerNNModel& skeleton, ModelFormat format,
                           std::string& messages) {
  const std::string bytes = written(skeleton, format);
  const CollectedMessages said;
  ModelFile file;
  if (readModel(bytes.data(), bytes.size(), file) != 0) {
    messages = said.text();
    return std::move(file.model);
  }
  messages.clear();
  setHiddenActivations(file);
  return std::move(file.model);
}

}  // namespace mlnn
