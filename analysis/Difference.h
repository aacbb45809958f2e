// Difference — how far apart the values of two models, or of two results, are.
#pragma once

#include <Eigen/Core>
#include <cstddef>
#include <cstdint>

#include "features/EigenBorder.h"
#include "features/Export.h"
#include "features/Watch.h"

namespace mlnn {

// Two values are the same when they compare equal, or when neither is a number. Their
// absolute difference is then 0; it is infinite where only one is a number, or only one is
// finite.
MLNN_EXPORT double absoluteDifference(float a, float b);

// The difference in units in the last place: how many floats lie between the two values, the
// second one counted. 0 for the same values; 2^32 - 1 where only one is a number.
MLNN_EXPORT uint32_t ulpDistance(float a, float b);

// Sums up the differences of any number of pairs of arrays.
class MLNN_EXPORT Difference {
 public:
  // Where a value stands: in which pair of arrays, and there in which row and column, all
  // counted from 0.
  struct Place {
    std::size_t pair = 0;  // in the order of `add`

    // Within both arrays of the pair.
    Eigen::Index row = 0;
    Eigen::Index col = 0;
  };

  // Takes in another pair of arrays. `watch` is called with 0 steps; what it throws leaves a part
  // of the pair taken in. REQUIRES: both have the same shape.
  void add(const Eigen::Ref<const Eigen::MatrixXf>& a, const Eigen::Ref<const Eigen::MatrixXf>& b,
           const Watch& watch = {});

  std::size_t count() const { return count_; }          // pairs of values taken in
  std::size_t differing() const { return differing_; }  // those that are not the same

  // The largest absolute difference, and the first place where it occurs. 0 and the very
  // first place without differences.
  double largest() const { return largest_; }
  Place placeOfLargest() const { return place_; }

  // The largest distance by ulpDistance.
  uint32_t largestUlps() const { return largestUlps_; }

  // The mean of the absolute differences; 0 without values.
  double mean() const;

  // The root of the mean square of the absolute differences; 0 without values.
  double rootMeanSquare() const;

  // The cosine of the angle between all values of one side and all of the other. 1 when all
  // are 0, 0 when only those of one side are; not a number when some value is not finite.
  double cosine() const;

 private:
  void addValues(float a, float b, Place place);

  std::size_t pairs_ = 0;
  std::size_t count_ = 0;
  std::size_t differing_ = 0;
  double largest_ = 0;
  Place place_;
  uint32_t largestUlps_ = 0;
  double sum_ = 0;      // of the absolute differences
  double squares_ = 0;  // sums over all pairs: (a - b)^2, a a, b b, a b
  double aa_ = 0;
  double bb_ = 0;
  double ab_ = 0;
};

}  // namespace mlnn
