// hasOutputs — whether a stack of layers computes anything, which who makes inputs for it asks
// first.
#pragma once

#include <cstddef>
#include <vector>

#include "layers/NNLayer.h"

namespace mlnn {

// Whether the first layer has outputs, and so has the last; false without layers.
//
// Where the first has none it may take 2^31 inputs, of which a file says no more than the number.
// Otherwise what an input vector takes is in proportion to the weights.
bool hasOutputs(const std::vector<NNLayer*>& layers);

// The same for the widths of a stack: its inputs, then the outputs of each layer.
bool hasOutputs(const std::vector<int>& widths);
bool hasOutputs(const std::vector<std::size_t>& widths);

// What messages say of a model that has none.
inline constexpr char kNoOutputs[] = "the model has no outputs";

}  // namespace mlnn
