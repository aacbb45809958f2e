#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <random>

#include "analysis/Difference.h"

namespace {

using mlnn::absoluteDifference;
using mlnn::Difference;
using mlnn::ulpDistance;

constexpr float kInfinity = std::numeric_limits<float>::infinity();
constexpr float kNaN = std::numeric_limits<float>::quiet_NaN();
constexpr float kMax = std::numeric_limits<float>::max();
constexpr float kDenormal = std::numeric_limits<float>::denorm_min();
constexpr uint32_t kFarthest = std::numeric_limits<uint32_t>::max();

Eigen::MatrixXf row(std::initializer_list<float> values) {
  Eigen::MatrixXf matrix(1, static_cast<Eigen::Index>(values.size()));
  std::copy(values.begin(), values.end(), matrix.data());
  return matrix;
}

Difference differenceOf(const Eigen::MatrixXf& a, const Eigen::MatrixXf& b) {
  Difference difference;
  difference.add(a, b);
  return difference;
}

TEST(AbsoluteDifference, ofSameValuesIsZero) {
  EXPECT_EQ(absoluteDifference(1.5f, 1.5f), 0);
  EXPECT_EQ(absoluteDifference(0.0f, -0.0f), 0);
  EXPECT_EQ(absoluteDifference(kInfinity, kInfinity), 0);
  EXPECT_EQ(absoluteDifference(kNaN, -kNaN), 0);
}

TEST(AbsoluteDifference, isExactAndDoesNotOverflow) {
  EXPECT_EQ(absoluteDifference(1.0f, -2.5f), 3.5);
  EXPECT_EQ(absoluteDifference(kMax, -kMax), 2 * double{kMax});
  EXPECT_EQ(absoluteDifference(kDenormal, 0), double{kDenormal});
}

TEST(AbsoluteDifference, isInfiniteWhereOnlyOneIsFiniteOrANumber) {
  for (const float other : {0.0f, 1.0f, -kMax, -kInfinity, kNaN}) {
    EXPECT_EQ(absoluteDifference(kInfinity, other), kInfinity) << other;
    EXPECT_EQ(absoluteDifference(other, kInfinity), kInfinity) << other;
  }
  EXPECT_EQ(absoluteDifference(kNaN, 0), kInfinity);
  EXPECT_EQ(absoluteDifference(0, kNaN), kInfinity);
}

TEST(UlpDistance, countsTheStepsFromOneFloatToTheOther) {
  EXPECT_EQ(ulpDistance(1, 1), 0u);
  EXPECT_EQ(ulpDistance(0.0f, -0.0f), 0u);
  EXPECT_EQ(ulpDistance(0, kDenormal), 1u);
  EXPECT_EQ(ulpDistance(-kDenormal, kDenormal), 2u);
  EXPECT_EQ(ulpDistance(kMax, kInfinity), 1u);
  EXPECT_EQ(ulpDistance(1, 2), 1u << 23);
  EXPECT_EQ(ulpDistance(-kInfinity, kInfinity), 2 * 0x7F800000u);
}

TEST(UlpDistance, agreesWithWalkingFromFloatToFloat) {
  std::mt19937 random(1);
  std::uniform_real_distribution<float> anywhere(-1e-3f, 1e-3f);
  for (int i = 0; i < 200; ++i) {
    const float start = anywhere(random);
    float end = start;
    for (uint32_t steps = 0; steps < 50; ++steps) {
      ASSERT_EQ(ulpDistance(start, end), steps);
      ASSERT_EQ(ulpDistance(end, start), steps);
      end = std::nextafter(end, kInfinity);
    }
  }
}

TEST(UlpDistance, ofANumberAndNoNumberIsTheLargest) {
  EXPECT_EQ(ulpDistance(kNaN, 0), kFarthest);
  EXPECT_EQ(ulpDistance(kInfinity, kNaN), kFarthest);
  EXPECT_EQ(ulpDistance(kNaN, kNaN), 0u);
}

TEST(Difference, startsAtNone) {
  const Difference none;
  EXPECT_EQ(none.count(), 0u);
  EXPECT_EQ(none.differing(), 0u);
  EXPECT_EQ(none.largest(), 0);
  EXPECT_EQ(none.largestUlps(), 0u);
  EXPECT_EQ(none.rootMeanSquare(), 0);
  EXPECT_EQ(none.cosine(), 1);
}

TEST(Difference, sumsUpOnePairOfArrays) {
  Eigen::MatrixXf a(2, 3);
  a << 1, 2, 3,  //
      4, 5, 6;
  Eigen::MatrixXf b = a;
  b(0, 2) = 3.5f;
  b(1, 1) = 3;
  const Difference difference = differenceOf(a, b);
  EXPECT_EQ(difference.count(), 6u);
  EXPECT_EQ(difference.differing(), 2u);
  EXPECT_EQ(difference.largest(), 2);
  EXPECT_EQ(difference.placeOfLargest().row, 1);
  EXPECT_EQ(difference.placeOfLargest().col, 1);
  EXPECT_EQ(difference.largestUlps(), ulpDistance(5, 3));
  EXPECT_DOUBLE_EQ(difference.rootMeanSquare(), std::sqrt((0.25 + 4) / 6));
  EXPECT_DOUBLE_EQ(difference.cosine(), 82.5 / std::sqrt(91 * 78.25));
}

TEST(Difference, namesTheFirstOfSeveralLargest) {
  Difference difference;
  difference.add(row({0, 0}), row({0, 1}));
  difference.add(row({7, 0, 0}), row({5, 0, 2}));
  difference.add(row({0}), row({2}));
  EXPECT_EQ(difference.count(), 6u);
  EXPECT_EQ(difference.largest(), 2);
  EXPECT_EQ(difference.placeOfLargest().pair, 1u);
  EXPECT_EQ(difference.placeOfLargest().row, 0);
  EXPECT_EQ(difference.placeOfLargest().col, 0);
}

TEST(Difference, ofValuesThatAreNoNumbers) {
  const Difference same = differenceOf(row({kNaN, 1}), row({kNaN, 1}));
  EXPECT_EQ(same.differing(), 0u);
  EXPECT_EQ(same.largest(), 0);
  EXPECT_TRUE(std::isnan(same.cosine()));

  const Difference one = differenceOf(row({1, kNaN}), row({1, 1}));
  EXPECT_EQ(one.differing(), 1u);
  EXPECT_EQ(one.largest(), kInfinity);
  EXPECT_EQ(one.placeOfLargest().col, 1);
  EXPECT_EQ(one.rootMeanSquare(), kInfinity);
  EXPECT_TRUE(std::isnan(one.cosine()));
}

TEST(Difference, cosineTellsDirectionsApart) {
  EXPECT_EQ(differenceOf(row({1, 2}), row({2, 4})).cosine(), 1);
  EXPECT_EQ(differenceOf(row({1, 2}), row({-1, -2})).cosine(), -1);
  EXPECT_EQ(differenceOf(row({1, 0}), row({0, 3})).cosine(), 0);
  EXPECT_EQ(differenceOf(row({0, 0}), row({0, 3})).cosine(), 0);
  EXPECT_EQ(differenceOf(row({0, 3}), row({0, 0})).cosine(), 0);
  EXPECT_EQ(differenceOf(row({0, 3}), row({0, 1})).cosine(), 1);
  EXPECT_EQ(differenceOf(row({0, 0}), row({0, 0})).cosine(), 1);
  EXPECT_EQ(differenceOf(row({kMax, kMax}), row({kMax, kMax})).cosine(), 1);
}

// The values of a block do not follow each other in memory.
TEST(Difference, readsBlocksOfLargerArrays) {
  Eigen::MatrixXf a = Eigen::MatrixXf::Zero(4, 4);
  a(3, 0) = 9;
  Difference difference;
  difference.add(a.topRows(2), Eigen::MatrixXf::Zero(2, 4));
  EXPECT_EQ(difference.count(), 8u);
  EXPECT_EQ(difference.differing(), 0u);
}

}  // namespace
