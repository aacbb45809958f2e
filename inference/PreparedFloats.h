// preparedBytesOf — the memory that ImageFwdPass::prepare takes for a model's image.
#pragma once

#include <cstdint>

#include "features/Export.h"
#include "features/Watch.h"

class MultiLayerNNModel;

namespace mlnn {

// Returns the bytes of all floats that ImageFwdPass::prepare (inference/ImageFwdPass.h) makes of
// the codes in the model's image where nothing limits it: 0 where there are none that pay. Which
// do depends on the caches of this processor.
// `watch` is called with 0 steps.
// REQUIRES: no layer is missing.
MLNN_EXPORT std::uint64_t preparedBytesOf(const MultiLayerNNModel& model, const Watch& watch = {});

}  // namespace mlnn
