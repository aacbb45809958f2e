// What a page says of the layers one by one.
#pragma once

#include "features/Watch.h"
#include "model/MultiLayerNNModel.h"
#include "tools/page/Markup.h"
#include "tools/page/RecordingFindings.h"

namespace mlnn {

// Layers in numbers, then the first of them in pictures. `recordings` may be null.
// `watch` is told of layers.
// REQUIRES: no layer is missing.
void writeLayers(Markup& page, const MultiLayerNNModel& model, const RecordingFindings* recordings,
                 const Watch& watch);

// What rounding their weights to few bits would do. `watch` is called with 0 steps.
void writeQuantisation(Markup& page, const MultiLayerNNModel& model, const Watch& watch);

}  // namespace mlnn
