#include <gtest/gtest.h>

#include "analysis/BehaviourDiff.h"
#include "tests/support/CaptureStderr.h"
#include "tests/support/TestModels.h"

namespace {

using mlnn::BehaviourDiff;
using mlnn::RecordingInputs;
using mlnn::test::modelOf;
using mlnn::test::plainLayer;
using mlnn::test::someValues;

RecordingInputs inputsOf(const MultiLayerNNModel& model) {
  std::string whyNot;
  return RecordingInputs::forFrames(model, model.numInputs(), true, "F", whyNot).value();
}

TEST(BehaviourDiff, findsTheFirstStageThatParts) {
  MultiLayerNNModel a = modelOf({plainLayer(5, 4, 1), plainLayer(4, 3, 2)});
  MultiLayerNNModel b = a;
  b.layers[1]->bias[2] += 1;
  BehaviourDiff diff(a, b);
  ASSERT_TRUE(diff.addRecording("one", someValues(5, 10, 7), inputsOf(a), inputsOf(b)));
  ASSERT_TRUE(diff.addRecording("two", someValues(5, 600, 8), inputsOf(a), inputsOf(b)));
  EXPECT_EQ(diff.recordings(), 2u);
  EXPECT_EQ(diff.frames(), 610u);
  ASSERT_NE(diff.firstBeyond(0), nullptr);
  EXPECT_EQ(diff.firstBeyond(0)->stage, "layer-2-affine");
  EXPECT_EQ(diff.placeOfLargest(*diff.firstBeyond(0)).unit, 2);
}

// The blocks that a watched comparison takes are others; what it finds is not.
TEST(BehaviourDiff, findsTheSameWhileItIsWatched) {
  MultiLayerNNModel a = modelOf({plainLayer(5, 4, 1)});
  MultiLayerNNModel b = modelOf({plainLayer(5, 4, 2)});
  const Eigen::MatrixXf frames = someValues(5, 1000, 7);
  BehaviourDiff alone(a, b);
  BehaviourDiff watched(a, b);
  std::size_t steps = 0;
  ASSERT_TRUE(alone.addRecording("r", frames, inputsOf(a), inputsOf(b)));
  ASSERT_TRUE(watched.addRecording("r", frames, inputsOf(a), inputsOf(b),
                                   [&steps](std::size_t further) { steps += further; }));
  EXPECT_EQ(steps, 1000u);
  EXPECT_EQ(watched.sameDecisions(), alone.sameDecisions());
  EXPECT_EQ(watched.outputs().difference.largest(), alone.outputs().difference.largest());
  EXPECT_EQ(watched.placeOfLargest(watched.outputs()).frame,
            alone.placeOfLargest(alone.outputs()).frame);
}

TEST(BehaviourDiff, hasNoPlaceBeforeThereIsAFrame) {
  const MultiLayerNNModel model = modelOf({plainLayer(5, 4)});
  BehaviourDiff diff(model, model);
  ASSERT_TRUE(diff.addRecording("r", Eigen::MatrixXf(5, 0), inputsOf(model), inputsOf(model)));
  EXPECT_EQ(diff.frames(), 0u);
  EXPECT_EQ(diff.outputs().difference.count(), 0u);
  const mlnn::FramePlace place = diff.placeOfLargest(diff.outputs());
  EXPECT_EQ(place.recording, "");
  EXPECT_EQ(place.frame, 0);
  EXPECT_EQ(place.unit, 0);
}

TEST(BehaviourDiff, saysWhenAModelCannotBeRun) {
  MultiLayerNNModel a = modelOf({plainLayer(5, 4)});
  MultiLayerNNModel b = modelOf({plainLayer(5, 4), plainLayer(3, 3)});
  BehaviourDiff diff(a, b);
  const std::string messages = mlnn::test::stderrOf(
      [&] { EXPECT_FALSE(diff.addRecording("r", someValues(5, 1, 7), inputsOf(a), inputsOf(b))); });
  EXPECT_EQ(messages, "ERROR: NNFwdPassFromFile::evaluate: layer 2 does not fit the model\n");
}

}  // namespace
