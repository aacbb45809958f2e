// What the outputs of a model are called.
#pragma once

#include <string>
#include <vector>

#include "features/Export.h"
#include "model/MultiLayerNNModel.h"

namespace mlnn {

// Returns the names of the model's outputs: the property `labels`, split at commas, when it has
// as many entries as there are outputs, else "0", "1", ... They come from the file as they are.
MLNN_EXPORT std::vector<std::string> classLabels(const MultiLayerNNModel& model);

// The same for a network of so many outputs that has no properties.
MLNN_EXPORT std::vector<std::string> classLabels(int numOutputs);

}  // namespace mlnn
