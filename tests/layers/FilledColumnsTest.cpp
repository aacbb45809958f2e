#include <gtest/gtest.h>

#include <Eigen/Core>

#include "layers/FilledColumns.h"

namespace {

TEST(FilledColumns, areAllButThoseWithoutValues) {
  EXPECT_EQ(mlnn::filledColumns(Eigen::MatrixXf::Zero(2, 3)), 3);
  EXPECT_EQ(mlnn::filledColumns(Eigen::MatrixXf(2, 0)), 0);
  EXPECT_EQ(mlnn::filledColumns(Eigen::MatrixXf(0, 2147483647)), 0);
}

}  // namespace
