// suspicionsOf — what is odd about a model that loads.
#pragma once

#include <vector>

#include "analysis/Suspicion.h"
#include "features/Export.h"
#include "features/Watch.h"
#include "model/ModelFile.h"

namespace mlnn {

// Returns what can hardly be meant in a model: what would make it give nonsense, or nothing,
// without any message. The activations that its file does not record have been set, where the
// property names one (model/ModelFile.h).
// `watch` is told of layers.
MLNN_EXPORT std::vector<Suspicion> suspicionsOf(const ModelFile& file, const Watch& watch = {});

// The same of a model in memory, all of whose activations are known, as is its softmax.
MLNN_EXPORT std::vector<Suspicion> suspicionsOf(const MultiLayerNNModel& model,
                                                const Watch& watch = {});

}  // namespace mlnn
