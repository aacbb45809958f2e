// compareStatements — what two models say of themselves, and where that differs.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "features/Export.h"
#include "model/MultiLayerNNModel.h"

namespace mlnn {

// One thing that the models do not agree on. A model that does not say it has no text.
struct StatementDifference {
  std::string what;              // "softmax", "property labels", "layer 2", ...
  std::optional<std::string> a;  // what the first model says
  std::optional<std::string> b;  // what the second one says
};

// Compares all but the parameters: softmax, properties, notes, training curves, feature
// description, normalisation, and of each layer its shape, kind and activation.
//
// Notes that both have at the beginning or at the end are left out; those between are listed
// line by line. No normalisation and one that changes nothing say the same.
// The texts may hold any bytes that a model file does.
MLNN_EXPORT std::vector<StatementDifference> compareStatements(const MultiLayerNNModel& a,
                                                               const MultiLayerNNModel& b);

}  // namespace mlnn
