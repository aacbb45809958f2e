// LayerResult — what one layer of a forward pass computed.
#pragma once

#include <Eigen/Core>

#include "features/EigenBorder.h"

namespace mlnn {

// One frame a column: outputs x frames each.
struct LayerResult {
  Eigen::MatrixXf affine;     // before the activation
  Eigen::MatrixXf activated;  // after it; in the last layer before the softmax
};

}  // namespace mlnn
