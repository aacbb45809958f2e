// ModelSkeleton — a model without its parameters, which is cheap to write and to read back. That
// shows what a format does to the rest.
#pragma once

#include <string>

#include "model/ModelFile.h"
#include "model/MultiLayerNNModel.h"

namespace mlnn {

// Returns a model that is like the given one in all but its parameters: its layers have the same
// kinds, inputs and activations, but no outputs. Curve values that no text could hold are 0.
// REQUIRES: no layer is missing.
MultiLayerNNModel skeletonOf(const MultiLayerNNModel& model);

// Writes and reads a skeleton, as openModel would read it. The result holds whatever could be
// read; `messages` is empty when that was all.
MultiLayerNNModel readBack(const MultiLayerNNModel& skeleton, ModelFormat format,
                           std::string& messages);

}  // namespace mlnn
