#include <gtest/gtest.h>

#include "tests/support/CaptureStderr.h"
#include "tests/support/TestModels.h"
#include "tools/page/RecordingFindings.h"

namespace {

using mlnn::RecordingFindings;
using mlnn::RecordingInputs;

// Two outputs, of which the larger input has the larger one.
MultiLayerNNModel network() {
  MultiLayerNNModel model = mlnn::test::modelOf({mlnn::test::plainLayer(2, 2)});
  model.layers[0]->weights.setIdentity();
  model.layers[0]->bias.setZero();
  model.layers[0]->actFn = ActFn::linear;
  model.useSoftmax = true;
  model.props = {{"labels", "left,right"}};
  return model;
}

RecordingInputs inputsOf(const MultiLayerNNModel& model) {
  std::string whyNot;
  return RecordingInputs::forFrames(model, 2, true, "F", whyNot).value();
}

Eigen::MatrixXf frameOf(float left, float right) {
  Eigen::MatrixXf frame(2, 1);
  frame << left, right;
  return frame;
}

TEST(RecordingFindings, putWhatIsWrongOrUnsureFirst) {
  const MultiLayerNNModel model = network();
  const RecordingInputs inputs = inputsOf(model);
  RecordingFindings found(model);
  ASSERT_TRUE(found.add("sure", frameOf(9, 0), inputs, 0));
  ASSERT_TRUE(found.add("unsure", frameOf(1, 0.5f), inputs, 0));
  ASSERT_TRUE(found.add("wrong", frameOf(9, 0), inputs, 1));
  ASSERT_TRUE(found.add("unknown", frameOf(5, 0), inputs, std::nullopt));
  EXPECT_EQ(found.bySureness(), std::vector<std::size_t>({2, 1, 3, 0}));
  EXPECT_TRUE(found.recordings()[2].isWrong());
  EXPECT_FALSE(found.recordings()[3].isWrong());
  EXPECT_EQ(found.frames(), 4u);
  EXPECT_EQ(found.labels(), std::vector<std::string>({"left", "right"}));
  EXPECT_TRUE(found.arePosteriors());
}

TEST(RecordingFindings, showSomeAsPicturesOnly) {
  const MultiLayerNNModel model = network();
  const RecordingInputs inputs = inputsOf(model);
  RecordingFindings found(model);
  for (std::size_t i = 0; i <= RecordingFindings::kMostPictures; ++i) {
    ASSERT_TRUE(found.add("r", frameOf(i == 7 ? 20.0f : 1.0f, 0), inputs, std::nullopt));
  }
  for (std::size_t i = 0; i <= RecordingFindings::kMostPictures; ++i) {
    EXPECT_EQ(found.recordings()[i].outputs.has_value(), i != 7) << i;  // the surest one
  }
}

TEST(RecordingFindings, takeNothingInWhereTheModelCannotBeRun) {
  MultiLayerNNModel model = network();
  const RecordingInputs inputs = inputsOf(model);
  model.layers[0]->bias.resize(1);
  RecordingFindings found(model);
  mlnn::test::stderrOf([&] { EXPECT_FALSE(found.add("r", frameOf(1, 0), inputs, std::nullopt)); });
  EXPECT_TRUE(found.recordings().empty());
  EXPECT_EQ(found.frames(), 0u);
}

}  // namespace
