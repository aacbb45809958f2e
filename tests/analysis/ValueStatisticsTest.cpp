#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "analysis/ValueStatistics.h"

namespace {

using mlnn::RowNorms;
using mlnn::rowNormsOf;
using mlnn::statisticsOf;
using mlnn::ValueStatistics;

constexpr float kNaN = std::numeric_limits<float>::quiet_NaN();
constexpr float kInfinity = std::numeric_limits<float>::infinity();

Eigen::MatrixXf matrix(Eigen::Index rows, std::initializer_list<float> values) {
  Eigen::MatrixXf result(rows, static_cast<Eigen::Index>(values.size()) / rows);
  auto next = values.begin();
  for (Eigen::Index r = 0; r < result.rows(); ++r) {
    for (Eigen::Index c = 0; c < result.cols(); ++c) result(r, c) = *next++;
  }
  return result;
}

TEST(ValueStatisticsTest, tellsOfAllValues) {
  const ValueStatistics found = statisticsOf(matrix(2, {3, 0, -1, 2}));
  EXPECT_EQ(found.count, 4u);
  EXPECT_EQ(found.notFinite, 0u);
  EXPECT_EQ(found.zeros, 1u);
  EXPECT_EQ(found.smallest, -1);
  EXPECT_EQ(found.largest, 3);
  EXPECT_EQ(found.mean, 1);
  EXPECT_EQ(found.norm, std::sqrt(14.0));
  EXPECT_EQ(found.deviation, std::sqrt(2.5));
  EXPECT_EQ(found.rootMeanSquare(), std::sqrt(14.0) / 2);
}

TEST(ValueStatisticsTest, leavesOutWhatIsNotFinite) {
  const ValueStatistics found = statisticsOf(matrix(1, {kNaN, 5, kInfinity, -kInfinity, 7}));
  EXPECT_EQ(found.notFinite, 3u);
  EXPECT_EQ(found.finite(), 2u);
  EXPECT_EQ(found.smallest, 5);
  EXPECT_EQ(found.largest, 7);
  EXPECT_EQ(found.mean, 6);
  EXPECT_EQ(found.deviation, 1);
}

TEST(ValueStatisticsTest, isZeroWithoutFiniteValues) {
  for (const Eigen::MatrixXf& values : {Eigen::MatrixXf(), matrix(1, {kNaN, kInfinity})}) {
    const ValueStatistics found = statisticsOf(values);
    EXPECT_EQ(found.smallest, 0);
    EXPECT_EQ(found.largest, 0);
    EXPECT_EQ(found.mean, 0);
    EXPECT_EQ(found.deviation, 0);
    EXPECT_EQ(found.norm, 0);
    EXPECT_EQ(found.rootMeanSquare(), 0);
  }
}

TEST(ValueStatisticsTest, doesNotOverflow) {
  constexpr float kMost = std::numeric_limits<float>::max();
  const ValueStatistics found = statisticsOf(matrix(1, {kMost, -kMost}));
  EXPECT_EQ(found.mean, 0);
  EXPECT_TRUE(std::isfinite(found.norm));
}

// Such a matrix has no values, though a loop over its columns would take a while.
TEST(ValueStatisticsTest, doesNotVisitColumnsWithoutRows) {
  const Eigen::Map<const Eigen::MatrixXf> wide(nullptr, 0, std::numeric_limits<int>::max());
  std::size_t calls = 0;
  EXPECT_EQ(statisticsOf(wide, [&calls](std::size_t) { ++calls; }).count, 0u);
  EXPECT_EQ(rowNormsOf(wide, [&calls](std::size_t) { ++calls; }).zeros, 0u);
  EXPECT_EQ(calls, 0u);
}

TEST(RowNormsTest, areTheLengthsOfRows) {
  const RowNorms found = rowNormsOf(matrix(4, {3, 4, 0, 0, 5, 12, 1, 0}));
  EXPECT_EQ(found.smallest, 0);
  EXPECT_EQ(found.median, 5);
  EXPECT_EQ(found.largest, 13);
  EXPECT_EQ(found.zeros, 1u);
}

TEST(RowNormsTest, leaveOutRowsThatAreNotFinite) {
  const RowNorms found = rowNormsOf(matrix(3, {kNaN, 4, 3, 4, 0, kInfinity}));
  EXPECT_EQ(found.smallest, 5);
  EXPECT_EQ(found.largest, 5);
  EXPECT_EQ(rowNormsOf(matrix(1, {kNaN})).largest, 0);
}

// Nothing is kept for rows of which a file says no more than their number.
TEST(RowNormsTest, areZeroWithoutColumns) {
  const Eigen::Map<const Eigen::MatrixXf> tall(nullptr, std::numeric_limits<int>::max(), 0);
  EXPECT_EQ(rowNormsOf(tall).largest, 0);
  EXPECT_EQ(rowNormsOf(tall).zeros, 0u);
}

}  // namespace
