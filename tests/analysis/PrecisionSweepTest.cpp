#include <gtest/gtest.h>

#include "analysis/PrecisionSweep.h"
#include "inference/Evaluation.h"
#include "tests/support/CaptureStderr.h"
#include "tests/support/TestModels.h"

namespace {

using mlnn::PrecisionLoss;
using mlnn::PrecisionSweep;
using mlnn::RecordingInputs;
using mlnn::test::modelOf;
using mlnn::test::plainLayer;
using mlnn::test::someValues;

RecordingInputs inputsOf(const MultiLayerNNModel& model) {
  std::string whyNot;
  return RecordingInputs::forFrames(model, model.numInputs(), true, "F", whyNot).value();
}

TEST(PrecisionSweep, comparesWithTheModelAsItIs) {
  MultiLayerNNModel model = modelOf({plainLayer(5, 4), plainLayer(4, 3)});
  const Eigen::MatrixXf frames = someValues(5, 300, 7);
  PrecisionSweep sweep(model);
  ASSERT_TRUE(sweep.addRecording(frames, inputsOf(model), std::nullopt));
  EXPECT_EQ(sweep.recordings(), 1u);
  EXPECT_EQ(sweep.frames(), 300u);

  PrecisionLoss loss;
  EXPECT_EQ(mlnn::test::stderrOf([&] { loss = sweep.measure(4); }), "");
  MultiLayerNNModel reduced(model);
  mlnn::test::stderrOf([&reduced] { reduced.retainPrecisionBits(4); });
  const RecordingInputs inputs = inputsOf(model);
  const Eigen::MatrixXf exact = mlnn::evaluateFrames(model, frames, inputs).value();
  const Eigen::MatrixXf found = mlnn::evaluateFrames(reduced, frames, inputs).value();
  const double largest = (exact.cast<double>() - found.cast<double>()).array().abs().maxCoeff();
  EXPECT_EQ(loss.bits, 4);
  EXPECT_EQ(loss.largestOutputDifference, largest);
  EXPECT_GT(loss.largestWeightError, loss.meanWeightError);
  EXPECT_LE(loss.sameBestClass, 300u);
}

TEST(PrecisionSweep, countsRecordingsThatAreDecidedRightly) {
  MultiLayerNNModel model = modelOf({plainLayer(5, 3)});
  const Eigen::MatrixXf frames = someValues(5, 9, 7);
  const RecordingInputs inputs = inputsOf(model);
  const Eigen::Index decided =
      mlnn::recordingClass(mlnn::evaluateFrames(model, frames, inputs).value());
  PrecisionSweep sweep(model);
  ASSERT_TRUE(sweep.addRecording(frames, inputs, decided));
  ASSERT_TRUE(sweep.addRecording(frames, inputs, (decided + 1) % 3));
  EXPECT_EQ(sweep.rightRecordings(), 1u);
  EXPECT_EQ(sweep.measure(31).rightRecordings, 1u);
}

TEST(PrecisionSweep, tellsItsWatchOfFrames) {
  MultiLayerNNModel model = modelOf({plainLayer(130, 3)});
  PrecisionSweep sweep(model);
  std::size_t steps = 0;
  const mlnn::Watch watch = [&steps](std::size_t further) { steps += further; };
  ASSERT_TRUE(sweep.addRecording(someValues(130, 9, 7), inputsOf(model), std::nullopt, watch));
  EXPECT_EQ(steps, 9u);
  mlnn::test::stderrOf([&] { sweep.measure(8, watch); });
  EXPECT_EQ(steps, 18u);
}

TEST(PrecisionSweep, takesNothingInWhereTheModelCannotBeRun) {
  MultiLayerNNModel model = modelOf({plainLayer(5, 4), plainLayer(3, 3)});
  PrecisionSweep sweep(model);
  const std::string messages = mlnn::test::stderrOf([&] {
    EXPECT_FALSE(sweep.addRecording(someValues(5, 2, 7), inputsOf(model), std::nullopt));
  });
  EXPECT_EQ(messages, "ERROR: NNFwdPassFromFile::evaluate: layer 2 does not fit the model\n");
  EXPECT_EQ(sweep.recordings(), 0u);
  EXPECT_EQ(sweep.frames(), 0u);
}

}  // namespace
