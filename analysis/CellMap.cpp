#include "analysis/CellMap.h"

#include <cmath>
#include <limits>

namespace mlnn {
namespace {

using Eigen::Index;

constexpr Index kColumnsBetweenCalls = 64;

// How many cells of that length cover so many.
Index cellsOf(Index count, Index length) { return count / length + (count % length == 0 ? 0 : 1); }

void take(float value, float& cell) {
  if (!std::isfinite(value)) {
    cell = std::numeric_limits<float>::quiet_NaN();
  } else if (std::fabs(value) > std::fabs(cell)) {  // never, once that is not a number
    cell = value;
  }
}

}  // namespace

CellMap cellMapOf(const Eigen::Ref<const Eigen::MatrixXf>& matrix, Index maxRows, Index maxCols,
                  const Watch& watch) {
  CellMap map;
  if (matrix.size() == 0) return map;
  map.rowsPerCell = cellsOf(matrix.rows(), maxRows);
  map.colsPerCell = cellsOf(matrix.cols(), maxCols);
  map.values = Eigen::MatrixXf::Zero(cellsOf(matrix.rows(), map.rowsPerCell),
                                     cellsOf(matrix.cols(), map.colsPerCell));
  for (Index c = 0; c < matrix.cols(); ++c) {
    if (c % kColumnsBetweenCalls == 0) tell(watch, 0);
    for (Index cell = 0, r = 0; r < matrix.rows(); ++cell) {
      float& extreme = map.values(cell, c / map.colsPerCell);
      for (Index i = 0; i < map.rowsPerCell && r < matrix.rows(); ++i, ++r) {
        take(matrix(r, c), extreme);
      }
    }
  }
  return map;
}

}  // namespace mlnn
