// How the weights of a model's layers stand in its image.
#pragma once

#include <string>

#include "features/Export.h"
#include "model/MultiLayerNNModel.h"

namespace mlnn {

// Returns how the layer's weights are stored in an image: "floats", "bytes", "half bytes", "bytes
// by rows" or "half bytes by rows".
MLNN_EXPORT const char* weightForm(const NNLayer& layer);

// Returns it for all layers, as in "floats in layer 1, bytes in layers 2-4"; "none" without layers.
MLNN_EXPORT std::string weightForms(const MultiLayerNNModel& model);

}  // namespace mlnn
