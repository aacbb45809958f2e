#include "model/StackOutputs.h"

#include "model/LayerStack.h"

namespace mlnn {

bool hasOutputs(const std::vector<NNLayer*>& layers) {
  return !layers.empty() && layerOrEmpty(layers.front()).weights.rows() != 0 &&
         layerOrEmpty(layers.back()).weights.rows() != 0;
}

bool hasOutputs(const std::vector<int>& widths) {
  return widths.size() > 1 && widths[1] != 0 && widths.back() != 0;
}

}  // namespace mlnn
