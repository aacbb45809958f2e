// What becomes of a model's numbers in a text.
#pragma once

#include <string>
#include <vector>

#include "features/Watch.h"
#include "model/MultiLayerNNModel.h"

namespace mlnn {

// Finds the numbers that a text with so many digits does not give back, and the arrays for which it
// has no place, and adds a line for each to `lost`. `watch` is told of values.
// Returns: why a text could be written, but not be read again; "" where it can.
std::string findLostNumbers(const MultiLayerNNModel& model, int precision, const Watch& watch,
                            std::vector<std::string>& lost);

}  // namespace mlnn
