// CellMap — a matrix of any size as a picture of few cells.
//
// Internal: not installed.
#pragma once

#include <Eigen/Core>

#include "features/Watch.h"

namespace mlnn {

// Each cell stands for neighbouring values, and shows the one of the largest magnitude among them,
// the first in its column-by-column order where several are: no outlier is averaged away. NaN where
// any of them is not finite.
struct CellMap {
  Eigen::MatrixXf values;        // one for each cell
  Eigen::Index rowsPerCell = 1;  // of the matrix; the last cells may have fewer
  Eigen::Index colsPerCell = 1;

  bool isWhole() const { return rowsPerCell == 1 && colsPerCell == 1; }
};

// Makes as many cells as it may, all for the same number of rows and columns. No cells for a matrix
// without values. `watch` is called with 0 steps.
// REQUIRES: maxRows and maxCols are positive.
CellMap cellMapOf(const Eigen::Ref<const Eigen::MatrixXf>& matrix, Eigen::Index maxRows,
                  Eigen::Index maxCols, const Watch& watch = {});

}  // namespace mlnn
