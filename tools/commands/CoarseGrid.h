// CoarseGrid — warns before a model's weights go to a grid that is too coarse for them.
#pragma once

#include "model/MultiLayerNNModel.h"

namespace mlnn {

// Returns the share of the model's weights, of those that are not zero, that are smaller than a
// step of its grid of so many bits: what is left of them is one of two points beside zero.
// REQUIRES: bits is 0 to 31.
double shareBelowAStep(const MultiLayerNNModel& model, int bits);

// Prints a warning where that is a tenth of them or more, and another one where layers are
// quantised by rows.
void warnOfCoarseGrid(const MultiLayerNNModel& model, int bits);

}  // namespace mlnn
