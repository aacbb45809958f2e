#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>

#include "inference/Evaluation.h"
#include "tests/support/CaptureStderr.h"
#include "tests/support/TestModels.h"

namespace {

using Labels = std::vector<std::string>;
using mlnn::test::modelOf;
using mlnn::test::plainLayer;
using mlnn::test::sameBits;
using mlnn::test::someValues;

constexpr float kNaN = std::numeric_limits<float>::quiet_NaN();

mlnn::RecordingInputs inputsFor(const MultiLayerNNModel& model, Eigen::Index width) {
  std::string whyNot;
  return mlnn::RecordingInputs::forFrames(model, width, false, "F", whyNot).value();
}

TEST(EvaluationTest, givesWhatTheForwardPassGives) {
  MultiLayerNNModel model = modelOf({plainLayer(5, 4), plainLayer(4, 3)});
  const Eigen::MatrixXf frames = someValues(5, 600, 9);
  const mlnn::RecordingInputs inputs = inputsFor(model, 5);
  Eigen::MatrixXf expected;
  const std::unique_ptr<NNFwdPassFromFile> pass(model.createFwdPass());
  ASSERT_EQ(pass->evaluate(frames, expected), 0);
  EXPECT_TRUE(sameBits(mlnn::evaluateFrames(model, frames, inputs).value(), expected));
}

TEST(EvaluationTest, failsWhereTheModelCannotBeRun) {
  MultiLayerNNModel model = modelOf({plainLayer(5, 4), plainLayer(3, 3)});
  const mlnn::RecordingInputs inputs = inputsFor(model, 5);
  const std::string messages = mlnn::test::stderrOf(
      [&] { EXPECT_FALSE(mlnn::evaluateFrames(model, someValues(5, 1, 9), inputs).has_value()); });
  EXPECT_EQ(messages, "ERROR: NNFwdPassFromFile::evaluate: layer 2 does not fit the model\n");
}

// How many frames go through at once is nobody's business but the watcher's.
TEST(EvaluationTest, givesTheSameWhileItIsWatched) {
  MultiLayerNNModel model = modelOf({plainLayer(5, 4), plainLayer(4, 3)});
  const Eigen::MatrixXf frames = someValues(5, 1000, 9);
  const mlnn::RecordingInputs inputs = inputsFor(model, 5);
  std::size_t steps = 0;
  const auto watched = mlnn::evaluateFrames(model, frames, inputs,
                                            [&steps](std::size_t further) { steps += further; });
  EXPECT_EQ(steps, 1000u);
  EXPECT_TRUE(sameBits(watched.value(), mlnn::evaluateFrames(model, frames, inputs).value()));
}

TEST(EvaluationTest, stopsWhereTheWatchThrows) {
  struct Stopped {};
  MultiLayerNNModel model = modelOf({plainLayer(5, 4)});
  std::size_t calls = 0;
  const auto evaluate = [&] {
    mlnn::evaluateFrames(model, someValues(5, 1000, 9), inputsFor(model, 5), [&](std::size_t) {
      if (++calls == 2) throw Stopped();
    });
  };
  EXPECT_THROW(evaluate(), Stopped);
  EXPECT_EQ(calls, 2u);
}

// Frames in pieces, which are other ones than the blocks that are asked for.
TEST(EvaluationTest, givesTheSameForFramesThatArrive) {
  MultiLayerNNModel model = modelOf({plainLayer(5, 4), plainLayer(4, 3)});
  const Eigen::MatrixXf frames = someValues(5, 700, 9);
  const mlnn::RecordingInputs inputs = inputsFor(model, 5);
  const std::unique_ptr<NNFwdPassFromFile> pass(model.createFwdPass());
  Eigen::Index given = 0;
  const auto next = [&](Eigen::Index most, Eigen::MatrixXf& some) {
    const Eigen::Index length = std::min<Eigen::Index>({most, 7, frames.cols() - given});
    some = frames.middleCols(given, length);
    given += length;
    return length > 0;
  };
  Eigen::MatrixXf outputs(3, 0);
  const auto use = [&](const Eigen::MatrixXf& some) {
    outputs.conservativeResize(Eigen::NoChange, outputs.cols() + some.cols());
    outputs.rightCols(some.cols()) = some;
    return true;
  };
  ASSERT_TRUE(mlnn::evaluateArriving(*pass, inputs, next, use));
  EXPECT_TRUE(sameBits(outputs, mlnn::evaluateFrames(model, frames, inputs).value()));
}

TEST(EvaluationTest, asksForNoFramesThatNobodyWants) {
  MultiLayerNNModel model = modelOf({plainLayer(5, 4)});
  const std::unique_ptr<NNFwdPassFromFile> pass(model.createFwdPass());
  int given = 0;
  int used = 0;
  const auto next = [&](Eigen::Index, Eigen::MatrixXf& some) {
    some = someValues(5, 1, static_cast<unsigned>(++given));
    return true;
  };
  const auto use = [&](const Eigen::MatrixXf&) { return ++used < 3; };
  EXPECT_TRUE(mlnn::evaluateArriving(*pass, inputsFor(model, 5), next, use));
  EXPECT_EQ(given, 3);
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
