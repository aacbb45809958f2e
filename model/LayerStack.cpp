#include "model/LayerStack.h"

namespace mlnn {

void resizeStack(std::vector<NNLayer*>& layers, std::size_t count) {
  for (std::size_t i = count; i < layers.size(); ++i) delete layers[i];
  layers.resize(count, nullptr);
}

void fillMissingLayers(std::vector<NNLayer*>& layers) {
  for (NNLayer*& layer : layers) {
    if (layer == nullptr) layer = new NNLayer();
  }
}

const NNLayer& layerOrEmpty(const NNLayer* layer) {
  if (layer != nullptr) return *layer;
  static const NNLayer empty;
  return empty;
}

std::optional<ValueRange> parameterRange(const std::vector<NNLayer*>& layers) {
  std::optional<ValueRange> range;
  const auto include = [&range](const float* values, Eigen::Index count) {
    if (count == 0) return;
    if (!range) range = ValueRange{values[0], values[0]};
    range->include(values, static_cast<std::size_t>(count));
  };
  for (const NNLayer* layer : layers) {
    if (layer == nullptr) continue;
    include(layer->bias.data(), layer->bias.size());
    include(layer->weights.data(), layer->weights.size());
  }
  return range;
}

}  // namespace mlnn
