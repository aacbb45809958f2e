// NetworkPicture — a network from its frames to its classes, drawn from the top down.
#pragma once

#include "model/MultiLayerNNModel.h"
#include "tools/page/Markup.h"

namespace mlnn {

// Writes an `svg` element. Of a network of many layers the first and the last are drawn.
// REQUIRES: no layer is missing.
void writeNetwork(Markup& page, const MultiLayerNNModel& model);

}  // namespace mlnn
