// What a model has lost when it was written and read back, but for its parameters.
#pragma once

#include <Eigen/Core>
#include <string>
#include <vector>

#include "model/MultiLayerNNModel.h"

namespace mlnn {

// Returns what `present`, which was read back, does not have of `wanted`: one line of text each, as
// in "it does not hold ...".
std::vector<std::string> lossesBetween(const MultiLayerNNModel& wanted,
                                       const MultiLayerNNModel& present);

// Whether two arrays hold the same numbers, signs of zeros included; any two that are none are the
// same.
bool sameValues(const Eigen::VectorXf& a, const Eigen::VectorXf& b);

std::string textOf(const DbnFeatureDescription& desc);

}  // namespace mlnn
