#include "analysis/Stage.h"

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <limits>
#include <utility>

namespace mlnn {
namespace {

constexpr char kInputs[] = "inputs";
constexpr char kOutputs[] = "outputs";
constexpr char kLayer[] = "layer-";
constexpr char kAffine[] = "-affine";

std::string affineName(uint64_t layer) { return kLayer + std::to_string(layer) + kAffine; }

std::string layerName(uint64_t layer) { return kLayer + std::to_string(layer); }

// The layer, and 0 before or 1 after its activation. Inputs come before all layers, outputs
// after them.
using Position = std::pair<uint64_t, int>;

constexpr uint64_t kAfterAllLayers = std::numeric_limits<uint64_t>::max();

std::optional<Position> positionOf(const std::string& name) {
  if (name == kInputs) return Position{0, 0};
  if (name == kOutputs) return Position{kAfterAllLayers, 0};
  constexpr std::size_t kPrefix = sizeof kLayer - 1;
  if (name.compare(0, kPrefix, kLayer) != 0) return std::nullopt;
  uint64_t layer = 0;
  std::from_chars(name.data() + kPrefix, name.data() + name.size(), layer);
  if (layer == 0 || layer == kAfterAllLayers) return std::nullopt;
  if (name == affineName(layer)) return Position{layer, 0};
  if (name == layerName(layer)) return Position{layer, 1};
  return std::nullopt;
}

}  // namespace

std::vector<std::string> stageNames(std::size_t layers) {
  std::vector<std::string> names{kInputs};
  for (std::size_t layer = 1; layer <= layers; ++layer) {
    names.push_back(affineName(layer));
    names.push_back(layerName(layer));
  }
  names.emplace_back(kOutputs);
  return names;
}

bool isStageName(const std::string& name) { return positionOf(name).has_value(); }

bool comesBefore(const std::string& a, const std::string& b) {
  return positionOf(a) < positionOf(b);
}

std::vector<const Eigen::MatrixXf*> StageValues::inOrder() const {
  std::vector<const Eigen::MatrixXf*> stages{&inputs};
  for (const LayerResult& layer : layers) {
    stages.push_back(&layer.affine);
    stages.push_back(&layer.activated);
  }
  stages.push_back(&outputs);
  return stages;
}

Eigen::Index framesAtOnce(const MultiLayerNNModel& model) {
  constexpr Eigen::Index kValues = Eigen::Index{1} << 22;
  Eigen::Index outputs = 1;
  for (const NNLayer* layer : model.layers) {
    outputs += std::min(layer->weights.rows(), kValues - outputs);
  }
  return kValues / outputs;
}

std::optional<StageValues> evaluateStages(NNFwdPassFromFile& pass,
                                          const Eigen::Ref<const Eigen::MatrixXf>& inputs) {
  StageValues values;
  if (pass.evaluateLayers(inputs, values.outputs, values.layers) != 0) return std::nullopt;
  values.inputs = inputs;
  return values;
}

}  // namespace mlnn
