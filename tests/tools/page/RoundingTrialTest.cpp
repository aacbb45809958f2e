#include <gtest/gtest.h>

#include "inference/Evaluation.h"
#include "tests/support/CaptureStderr.h"
#include "tests/support/TestModels.h"
#include "tools/page/RoundingTrial.h"

namespace {

using mlnn::RecordingInputs;
using mlnn::RoundingTrial;
using mlnn::test::modelOf;
using mlnn::test::plainLayer;
using mlnn::test::someValues;
using mlnn::test::stderrOf;

RecordingInputs inputsOf(const MultiLayerNNModel& model) {
  std::string whyNot;
  return RecordingInputs::forFrames(model, model.numInputs(), true, "F", whyNot).value();
}

TEST(RoundingTrial, countsWhatIsKept) {
  MultiLayerNNModel model = modelOf({plainLayer(6, 5), plainLayer(5, 3)});
  const Eigen::MatrixXf frames = someValues(6, 40, 3);
  const RecordingInputs inputs = inputsOf(model);
  const Eigen::Index decided =
      mlnn::recordingClass(mlnn::evaluateFrames(model, frames, inputs).value());
  RoundingTrial trial(model);
  EXPECT_TRUE(trial.decides());
  ASSERT_TRUE(trial.add(frames, inputs, decided));
  ASSERT_TRUE(trial.add(frames, inputs, (decided + 1) % 3));
  ASSERT_TRUE(trial.add(frames, inputs, std::nullopt));
  EXPECT_EQ(trial.frames(), 120u);
  EXPECT_EQ(trial.knownRecordings(), 2u);
  EXPECT_EQ(trial.rightRecordings(), 1u);
  const auto kept = trial.measure(8);
  ASSERT_TRUE(kept);
  EXPECT_EQ(kept->floats.sameBestClass % 3, 0u);  // of three recordings that are the same
  EXPECT_GT(kept->floats.sameBestClass, 60u);
  EXPECT_GT(kept->integers.sameBestClass, 60u);
  EXPECT_EQ(kept->floats.rightRecordings, 1u);
}

TEST(RoundingTrial, takesNothingInWhereTheModelCannotBeRun) {
  MultiLayerNNModel model = modelOf({plainLayer(6, 5), plainLayer(4, 1)});
  RoundingTrial trial(model);
  EXPECT_FALSE(trial.decides());
  const std::string said = stderrOf(
      [&] { EXPECT_FALSE(trial.add(someValues(6, 2, 3), inputsOf(model), std::nullopt)); });
  EXPECT_EQ(said, "ERROR: NNFwdPassFromFile::evaluate: layer 2 does not fit the model\n");
  EXPECT_EQ(trial.frames(), 0u);
  EXPECT_EQ(trial.knownRecordings(), 0u);
}

TEST(RoundingTrial, isSilentOfWhatCannotBeRounded) {
  MultiLayerNNModel model = modelOf({plainLayer(6, 3)});
  model.layers[0]->weights(0, 0) = INFINITY;
  const RoundingTrial trial(model);
  EXPECT_EQ(stderrOf([&] { EXPECT_FALSE(trial.measure(8)); }), "");
}

}  // namespace
