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
  static const NNLayer empty;
  return layer != nullptr ? *layer : empty;
}

}  // namespace mlnn
