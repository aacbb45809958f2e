// statisticsOf — an array of numbers in a few numbers.
//
// Internal: not installed.
#pragma once

#include <Eigen/Core>
#include <cstddef>

#include "features/Watch.h"

namespace mlnn {

struct ValueStatistics {
  std::size_t count = 0;
  std::size_t notFinite = 0;  // left out of all that follows
  std::size_t zeros = 0;
  double smallest = 0;  // 0, as the rest, where there are no finite values
  double largest = 0;
  double mean = 0;
  double deviation = 0;  // the root of the mean squared distance from the mean
  double norm = 0;       // the root of the sum of squares

  std::size_t finite() const { return count - notFinite; }

  // The root of the mean of squares; 0 without finite values.
  double rootMeanSquare() const;
};

// `watch` is called with 0 steps.
ValueStatistics statisticsOf(const Eigen::Ref<const Eigen::MatrixXf>& values,
                             const Watch& watch = {});

// The lengths of the rows of a matrix, as vectors. All 0 where it has no values.
struct RowNorms {
  double smallest = 0;
  double median = 0;  // of an even number of rows, the upper one of the two in the middle
  double largest = 0;
  std::size_t zeros = 0;  // rows in which each value is 0
};

// Rows with values that are not finite are left out. `watch` is called with 0 steps.
RowNorms rowNormsOf(const Eigen::Ref<const Eigen::MatrixXf>& values, const Watch& watch = {});

}  // namespace mlnn
