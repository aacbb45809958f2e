#include "model/StackOutputs.h"

#include "model/LayerStack.h"

namespace mlnn {
namespace {

template <typename Widths>
bool haveOutputs(const Widths& widths) {
  return widths.size() > 1 && widths[1] != 0 && widths.back() != 0;
}

}  // namespace

bool hasOutputs(const std::vector<NNLayer*>& layers) {
  return !layers.empty() && layerOrEmpty(layers.front()).weights.rows() != 0 &&
         layerOrEmpty(layers.back()).weights.rows() != 0;
}

bool hasOutputs(const std::vector<int>& widths) { return haveOutputs(widths); }

bool hasOutputs(const std::vector<std::size_t>& widths) { return haveOutputs(widths); }

}  // namespace mlnn
