#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "inference/Evaluation.h"
#include "tests/support/CaptureStderr.h"
#include "tests/support/TestModels.h"
#include "tools/Failure.h"

namespace {

using Labels = std::vector<std::string>;
using mlnn::test::modelOf;
using mlnn::test::plainLayer;
using mlnn::test::sameBits;
using mlnn::test::someValues;

constexpr float kNaN = std::numeric_limits<float>::quiet_NaN();

TEST(EvaluationTest, givesWhatTheForwardPassGives) {
  MultiLayerNNModel model = modelOf({plainLayer(5, 4), plainLayer(4, 3)});
  const Eigen::MatrixXf frames = someValues(5, 600, 9);
  const mlnn::Inputs inputs = mlnn::Inputs::forFrames(model, 5, false, "F");
  mlnn::Progress progress("F", 600);
  Eigen::MatrixXf expected;
  const std::unique_ptr<NNFwdPassFromFile> pass(model.createFwdPass());
  ASSERT_EQ(pass->evaluate(frames, expected), 0);
  EXPECT_TRUE(sameBits(mlnn::evaluateFrames(model, frames, inputs, progress), expected));
}

TEST(EvaluationTest, failsWhereTheModelCannotBeRun) {
  MultiLayerNNModel model = modelOf({plainLayer(5, 4), plainLayer(3, 3)});
  const mlnn::Inputs inputs = mlnn::Inputs::forFrames(model, 5, false, "F");
  mlnn::Progress progress("F", 1);
  const auto evaluate = [&] {
    EXPECT_THROW(mlnn::evaluateFrames(model, someValues(5, 1, 9), inputs, progress), mlnn::Failure);
  };
  EXPECT_EQ(mlnn::test::stderrOf(evaluate),
            "ERROR: NNFwdPassFromFile::evaluate: layer 2 does not fit the model\n");
}

TEST(EvaluationTest, bestClassIsTheFirstOfTheLargest) {
  EXPECT_EQ(mlnn::bestClass(Eigen::Vector4f(1, 3, 3, 2)), 1);
  EXPECT_EQ(mlnn::bestClass(Eigen::Vector2f(-2, -1)), 1);
  EXPECT_EQ(mlnn::bestClass(Eigen::Vector3f(5, kNaN, 1)), -1);
  EXPECT_EQ(mlnn::bestClass(Eigen::Vector2f(kNaN, 1)), -1);
}

TEST(EvaluationTest, recordingClassSumsLogsOfAtLeast1e30) {
  Eigen::MatrixXf posteriors(2, 3);
  posteriors << 0.9f, 0.9f, 0.0f,  //
      0.1f, 0.1f, 1.0f;
  const Eigen::VectorXd sums = mlnn::sumOfLogs(posteriors);
  EXPECT_DOUBLE_EQ(sums[0], 2 * std::log(double{0.9f}) + std::log(1e-30));
  EXPECT_DOUBLE_EQ(sums[1], 2 * std::log(double{0.1f}));
  EXPECT_EQ(mlnn::recordingClass(posteriors), 1);
  posteriors(0, 0) = kNaN;
  EXPECT_EQ(mlnn::recordingClass(posteriors), -1);
}

TEST(EvaluationTest, labelsComeFromThePropertyWhereTheyAreAsManyAsOutputs) {
  MultiLayerNNModel model = modelOf({plainLayer(5, 3)});
  EXPECT_EQ(mlnn::classLabels(model), (Labels{"0", "1", "2"}));
  model.props["labels"] = "a,\x1b[m,";
  EXPECT_EQ(mlnn::classLabels(model), (Labels{"a", "\x1b[m", ""}));
  model.props["labels"] = "a,b";
  EXPECT_EQ(mlnn::classLabels(model), (Labels{"0", "1", "2"}));
}

}  // namespace
