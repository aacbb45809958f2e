// What a page says of a model as a whole.
#pragma once

#include "model/ModelFile.h"
#include "tools/page/Markup.h"

namespace mlnn {

// REQUIRES, here and below: no layer is missing.
void writeAbout(Markup& page, const ModelFile& file);
void writeNetworkSection(Markup& page, const MultiLayerNNModel& model);
void writeSuspicions(Markup& page, const ModelFile& file);
void writeTraining(Markup& page, const MultiLayerNNModel& model);
void writeNeeds(Markup& page, const MultiLayerNNModel& model);
void writeProperties(Markup& page, const MultiLayerNNModel& model);
void writeNotes(Markup& page, const MultiLayerNNModel& model);

}  // namespace mlnn
