// quantizationError — what rounding a layer by rows would do to its weights, without a copy of it.
//
// Internal: not installed.
#pragma once

#include <optional>

#include "features/Watch.h"
#include "layers/NNLayer.h"

namespace mlnn {

// Returns the relative error that quantizeRows (model/RowQuantization.h) would leave in the
// weights, with scales from the largest weight of a row; nothing where it would refuse them, or
// where there are none. `watch` is called with 0 steps.
// REQUIRES: bits is 2 to 8.
std::optional<double> quantizationError(const NNLayer& layer, int bits, const Watch& watch = {});

}  // namespace mlnn
