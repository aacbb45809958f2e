#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "analysis/CellMap.h"

namespace {

using mlnn::CellMap;
using mlnn::cellMapOf;

Eigen::MatrixXf counting(Eigen::Index rows, Eigen::Index cols) {
  Eigen::MatrixXf matrix(rows, cols);
  for (Eigen::Index r = 0; r < rows; ++r) {
    for (Eigen::Index c = 0; c < cols; ++c) matrix(r, c) = static_cast<float>(r * cols + c + 1);
  }
  return matrix;
}

TEST(CellMapTest, hasEveryValueWhereThereIsRoom) {
  const Eigen::MatrixXf matrix = counting(2, 3);
  const CellMap cells = cellMapOf(matrix, 2, 3);
  EXPECT_TRUE(cells.isWhole());
  EXPECT_EQ(cells.values, matrix);
}

TEST(CellMapTest, takesTheLargestMagnitudeOfNeighbours) {
  Eigen::MatrixXf matrix = counting(4, 4);
  matrix(1, 0) = -100;
  const CellMap cells = cellMapOf(matrix, 2, 2);
  EXPECT_EQ(cells.rowsPerCell, 2);
  EXPECT_EQ(cells.colsPerCell, 2);
  Eigen::MatrixXf expected(2, 2);
  expected << -100, 8, 14, 16;
  EXPECT_EQ(cells.values, expected);
}

TEST(CellMapTest, mayHaveFewerValuesInTheLastCells) {
  const CellMap cells = cellMapOf(counting(5, 7), 2, 3);
  EXPECT_EQ(cells.rowsPerCell, 3);
  EXPECT_EQ(cells.colsPerCell, 3);
  Eigen::MatrixXf expected(2, 3);
  expected << 17, 20, 21, 31, 34, 35;
  EXPECT_EQ(cells.values, expected);
}

TEST(CellMapTest, showsWhatIsNotFinite) {
  for (const float odd :
       {std::numeric_limits<float>::infinity(), std::numeric_limits<float>::quiet_NaN()}) {
    Eigen::MatrixXf matrix = counting(2, 4);
    matrix(0, 1) = odd;
    const CellMap cells = cellMapOf(matrix, 1, 2);
    EXPECT_TRUE(std::isnan(cells.values(0, 0)));
    EXPECT_EQ(cells.values(0, 1), 8);
  }
}

TEST(CellMapTest, hasNoCellsWithoutValues) {
  const Eigen::Map<const Eigen::MatrixXf> wide(nullptr, 0, std::numeric_limits<int>::max());
  EXPECT_EQ(cellMapOf(wide, 10, 10).values.size(), 0);
  const Eigen::Map<const Eigen::MatrixXf> tall(nullptr, std::numeric_limits<int>::max(), 0);
  EXPECT_EQ(cellMapOf(tall, 10, 10).values.size(), 0);
}

}  // namespace
