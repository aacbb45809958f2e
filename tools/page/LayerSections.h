// What a page says of the layers one by one.
#pragma once

#include "features/Watch.h"
#include "model/MultiLayerNNModel.h"
#include "tools/page/Markup.h"
#include "tools/page/RecordingFindings.h"
#include "tools/page/RoundingTrial.h"

namespace mlnn {

// Layers in numbers, then the first of them in pictures. `recordings` may be null.
// `watch` is told of layers.
// REQUIRES: no layer is missing.
void writeLayers(Markup& page, const MultiLayerNNModel& model, const RecordingFindings* recordings,
                 const Watch& watch);

// What rounding their weights to few bits would do: to the weights, and with `trial`, which may be
// null, to decisions. `watch` is called with 0 steps.
void writeQuantisation(Markup& page, const MultiLayerNNModel& model, const RoundingTrial* trial,
                       const Watch& watch);

}  // namespace mlnn
