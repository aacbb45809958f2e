#include <gtest/gtest.h>

#include <Eigen/Core>

#include "features/EigenAssign.h"

namespace {

using Eigen::MatrixXf;
using Eigen::VectorXf;

TEST(EigenAssign, copiesInPlaceWhereShapesAgree) {
  MatrixXf target = MatrixXf::Zero(2, 3);
  const MatrixXf source = MatrixXf::Constant(2, 3, 5);
  const float* const values = target.data();
  mlnn::assign(target, source);
  EXPECT_EQ(target, source);
  EXPECT_EQ(target.data(), values);
}

TEST(EigenAssign, takesTheShapeOfAnother) {
  MatrixXf target = MatrixXf::Zero(2, 3);
  mlnn::assign(target, MatrixXf(MatrixXf::Constant(3, 2, 5)));
  EXPECT_EQ(target, MatrixXf::Constant(3, 2, 5));
  mlnn::assign(target, MatrixXf(0, 7));
  EXPECT_EQ(target.rows(), 0);
  EXPECT_EQ(target.cols(), 7);
}

TEST(EigenAssign, reshapesOnlyWhatHasAnotherShape) {
  MatrixXf target = MatrixXf::Constant(2, 3, 4);
  mlnn::reshape(target, 2, 3);
  EXPECT_EQ(target, MatrixXf::Constant(2, 3, 4));
  mlnn::reshape(target, 3, 2);
  EXPECT_EQ(target.rows(), 3);
  EXPECT_EQ(target.cols(), 2);
}

TEST(EigenAssign, makesZeros) {
  VectorXf vector = VectorXf::Ones(2);
  mlnn::assignZeros(vector, 3);
  EXPECT_EQ(vector, VectorXf::Zero(3));
  MatrixXf matrix = MatrixXf::Ones(1, 2);
  mlnn::assignZeros(matrix, 1, 2);
  EXPECT_EQ(matrix, MatrixXf::Zero(1, 2));
}

}  // namespace
