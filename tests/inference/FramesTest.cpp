#include <gtest/gtest.h>

#include "inference/Frames.h"

namespace {

using Eigen::MatrixXf;
using mlnn::InputFrames;
using mlnn::OutputFrames;
using RowMajor = Eigen::Matrix<float, Eigen::Dynamic, Eigen::Dynamic, Eigen::RowMajor>;

// Value v of frame f, as the passes read it.
float at(const InputFrames& frames, std::ptrdiff_t frame, std::ptrdiff_t value) {
  return frames.values[frame * frames.frameStride + value * frames.valueStride];
}

void expectColumns(const InputFrames& frames, const MatrixXf& matrix) {
  ASSERT_EQ(frames.width, matrix.rows());
  ASSERT_EQ(frames.frames, matrix.cols());
  for (Eigen::Index f = 0; f < matrix.cols(); ++f) {
    for (Eigen::Index v = 0; v < matrix.rows(); ++v) EXPECT_EQ(at(frames, f, v), matrix(v, f));
  }
}

MatrixXf some() {
  MatrixXf matrix(3, 4);
  for (Eigen::Index i = 0; i < 12; ++i) matrix(i) = static_cast<float>(i);
  return matrix;
}

TEST(Frames, areTheColumnsOfAMatrixHoweverItLies) {
  const MatrixXf matrix = some();
  const RowMajor rows = matrix;
  expectColumns(matrix, matrix);
  expectColumns(rows, matrix);
  expectColumns(matrix.block(1, 1, 2, 3), matrix.block(1, 1, 2, 3));
  expectColumns(matrix.transpose(), matrix.transpose());
  expectColumns(matrix.row(2), matrix.row(2));
  expectColumns(matrix.col(2), matrix.col(2));
}

TEST(Frames, lieOneBehindTheOtherWithoutAStride) {
  const float values[6] = {};
  const InputFrames inputs(values, 2, 3);
  EXPECT_EQ(inputs.frameStride, 2);
  EXPECT_EQ(inputs.valueStride, 1);
  float room[6] = {};
  EXPECT_EQ(OutputFrames(room, 3, 2).frameStride, 3);
}

TEST(Frames, areWrittenIntoAMatrixOrAPartOfIt) {
  MatrixXf matrix = some();
  const OutputFrames whole(matrix);
  EXPECT_EQ(whole.values, matrix.data());
  EXPECT_EQ(whole.width, 3);
  EXPECT_EQ(whole.frames, 4);
  EXPECT_EQ(whole.frameStride, 3);
  const OutputFrames part(matrix.block(1, 2, 2, 2));
  EXPECT_EQ(part.values, matrix.data() + 7);
  EXPECT_EQ(part.width, 2);
  EXPECT_EQ(part.frameStride, 3);
}

TEST(Frames, areNotWrittenWhereTheirValuesDoNotLieTogether) {
  EXPECT_FALSE((std::is_constructible_v<OutputFrames, RowMajor&>));
  EXPECT_FALSE((std::is_constructible_v<OutputFrames, const MatrixXf&>));
  EXPECT_TRUE((std::is_constructible_v<OutputFrames, MatrixXf&>));
  EXPECT_FALSE((std::is_constructible_v<InputFrames, Eigen::MatrixXd&>));
}

}  // namespace
