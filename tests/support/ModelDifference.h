// firstDifference — tells where two models differ, bit by bit.
#pragma once

#include <string>

#include "model/MultiLayerNNModel.h"

namespace mlnn::test {

enum class Extent {
  kWhole,      // all of both models
  kReadParts,  // one model may have shorter arrays, curves or stack; what both have is compared
};

// Returns "" when every field of both models is equal, floats by their bits and missing layers
// included, else the name of the first field that is not.
std::string firstDifference(const MultiLayerNNModel& a, const MultiLayerNNModel& b,
                            Extent extent = Extent::kWhole);

}  // namespace mlnn::test
