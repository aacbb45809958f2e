// OrderedPass — one layer for one frame, written down as plainly as possible in the order of
// operations that docs/forward-pass.md fixes: what the kernels must give to the bit.
#pragma once

#include <vector>

#include "inference/kernels/LayerView.h"

namespace mlnn::test {

// The results of the layer for the inputs `x`.
std::vector<float> orderedLayer(const LayerView& layer, const float* x);

// The softmax of some values.
std::vector<float> orderedSoftmax(std::vector<float> values);

}  // namespace mlnn::test
