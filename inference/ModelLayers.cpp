#include "inference/ModelLayers.h"

#include "layers/LayerArrays.h"
#include "layers/Report.h"
#include "model/MultiLayerNNModel.h"

namespace mlnn {
namespace {

using Eigen::Index;

// Whether a layer's arrays have the lengths that its kind asks for.
bool keepsInvariants(const NNLayer& layer) {
  const Index rows = layer.weights.rows();
  if (layer.actFn < 0 || layer.actFn >= ActFn::kCount) return false;
  for (const LayerVector& vector : kLayerVectors) {
    const Index size = vector.of(layer).size();
    if (size != rows && (size != 0 || vector.isUsedBy(layer))) return false;
  }
  return true;
}

// Whether there is no memory where values should be.
template <typename Frames>
bool isMissing(const Frames& frames) {
  return frames.values == nullptr && frames.width > 0 && frames.frames > 0;
}

}  // namespace

bool canBeEvaluated(const MultiLayerNNModel* model, const char* operation) {
  if (model == nullptr || model->layers.empty()) {
    report({"ERROR: ", operation, ": model has no layers"});
    return false;
  }
  const NNLayer* previous = nullptr;
  for (std::size_t i = 0; i < model->layers.size(); ++i) {
    const NNLayer* layer = model->layers[i];
    const bool fits = layer != nullptr && keepsInvariants(*layer) &&
                      (previous == nullptr || layer->weights.cols() == previous->weights.rows());
    if (!fits) {
      report({"ERROR: ", operation, ": layer ", i + 1, " does not fit the model"});
      return false;
    }
    previous = layer;
  }
  return true;
}

bool inputsFit(std::ptrdiff_t width, int expected, const char* operation) {
  if (width == expected) return true;
  report({"ERROR: ", operation, ": expected ", expected, " inputs but got ", width});
  return false;
}

bool framesFit(const InputFrames& inputs, const OutputFrames& outputs, int numInputs,
               int numOutputs, const char* operation) {
  if (!inputsFit(inputs.width, numInputs, operation)) return false;
  if (outputs.width != numOutputs) {
    report({"ERROR: ", operation, ": expected room for ", numOutputs, " outputs but got room for ",
            outputs.width});
    return false;
  }
  if (inputs.frames < 0 || outputs.frames != inputs.frames) {
    report({"ERROR: ", operation, ": got ", inputs.frames, " frames of inputs but room for ",
            outputs.frames});
    return false;
  }
  if (outputs.frames > 1 && outputs.frameStride < outputs.width) {
    report({"ERROR: ", operation, ": frames of ", outputs.width, " outputs cannot lie ",
            outputs.frameStride, " apart"});
    return false;
  }
  const char* const missing = isMissing(inputs)    ? "inputs"
                              : isMissing(outputs) ? "outputs"
                                                   : nullptr;
  if (missing == nullptr) return true;
  report({"ERROR: ", operation, ": the ", missing, " are a null pointer"});
  return false;
}

std::size_t ModelLayers::count() const { return model_.layers.size(); }

LayerView ModelLayers::layer(std::size_t index) const {
  const NNLayer& layer = *model_.layers[index];
  return {layer.weights.data(),
          static_cast<std::size_t>(layer.weights.rows()),
          static_cast<std::size_t>(layer.weights.cols()),
          layer.isBatchNorm ? layer.gamma_inf.data() : nullptr,
          layer.isBatchNorm ? layer.beta_inf.data() : layer.bias.data(),
          layer.actFn};
}

bool ModelLayers::endsInSoftmax() const { return model_.useSoftmax; }

}  // namespace mlnn
