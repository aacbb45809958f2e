// Layers that are made step by step, so that whoever waits can stop it.
//
// Internal: not installed.
#pragma once

#include "features/Watch.h"
#include "layers/NNLayer.h"

namespace mlnn {

// Returns a copy of all eight fields. `watch` is called with 0 steps; what it throws passes
// through.
NNLayer copyOf(const NNLayer& layer, const Watch& watch);

// Returns the layer that NNLayer(numInputs, numOutputs, initScale, batchNorm) would be, drawn from
// the same random source. Where the watch, called as above, lets others draw from it, or throws,
// the source goes on from where they are.
NNLayer randomLayer(int numInputs, int numOutputs, float initScale, bool batchNorm,
                    const Watch& watch);

}  // namespace mlnn
