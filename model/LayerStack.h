// Helpers for a stack of owned layers that may have missing (null) ones after a failed load.
#pragma once

#include <cstddef>
#include <optional>
#include <vector>

#include "layers/NNLayer.h"
#include "model/PrecisionGrid.h"

namespace mlnn {

// Makes the stack `count` entries long: deletes the layers beyond, in increasing order, or
// appends missing ones.
void resizeStack(std::vector<NNLayer*>& layers, std::size_t count);

// Puts an empty layer where one is missing.
void fillMissingLayers(std::vector<NNLayer*>& layers);

// Returns the layer, or an empty one where it is missing.
const NNLayer& layerOrEmpty(const NNLayer* layer);

// Returns the range of all weights and biases, taken layer by layer, the bias before the weights;
// nothing when there are none.
std::optional<ValueRange> parameterRange(const std::vector<NNLayer*>& layers);

}  // namespace mlnn
