// copyOf — a copy of a model that is made step by step, since a large one takes a while.
#pragma once

#include "features/Watch.h"
#include "model/MultiLayerNNModel.h"

namespace mlnn {

// Returns a copy of everything, the properties included. `watch` is called with 0 steps, within
// large layers too.
// REQUIRES: no layer is missing.
MultiLayerNNModel copyOf(const MultiLayerNNModel& model, const Watch& watch);

}  // namespace mlnn
