// filledColumns — how many columns a loop over a matrix has to visit.
#pragma once

#include <Eigen/Core>

namespace mlnn {

// Returns the columns in which there are values: all, or none of a matrix without rows. Such a
// one may have 2^31 columns, of which a file says no more than the number.
template <typename Matrix>
Eigen::Index filledColumns(const Matrix& matrix) {
  return matrix.rows() == 0 ? 0 : matrix.cols();
}

}  // namespace mlnn
