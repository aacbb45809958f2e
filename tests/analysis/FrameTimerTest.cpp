// What the times are depends on the machine; here is what holds wherever they are measured.
#include <gtest/gtest.h>

#include <algorithm>

#include "analysis/FrameTimer.h"
#include "tests/support/CaptureStderr.h"
#include "tests/support/TestModels.h"

namespace {

using mlnn::FrameTime;
using mlnn::timeFrames;
using mlnn::test::stderrOf;

// Counts the frames that it is given.
class CountingPass : public FwdPass {
 public:
  explicit CountingPass(int outputs = 1, int inputs = 3) : outputs_(outputs), inputs_(inputs) {}

  int numInputs() const override { return inputs_; }
  int numOutputs() const override { return outputs_; }
  int evaluate(const Eigen::Ref<const Eigen::MatrixXf>& inputs, Eigen::MatrixXf& outputs) override {
    outputs.setZero(outputs_, inputs.cols());
    frames += static_cast<std::size_t>(inputs.cols());
    largestCall = std::max(largestCall, inputs.cols());
    areWithinOne = areWithinOne && (inputs.array() >= 0).all() && (inputs.array() < 1).all();
    return 0;
  }

  std::size_t frames = 0;
  Eigen::Index largestCall = 0;
  bool areWithinOne = true;

 private:
  int outputs_;
  int inputs_;
};

class RefusingPass : public CountingPass {
 public:
  int evaluate(const Eigen::Ref<const Eigen::MatrixXf>&, Eigen::MatrixXf&) override { return 1; }
};

TEST(FrameTimer, givesTimesInTheirOrder) {
  MultiLayerNNModel model = mlnn::test::modelOf({mlnn::test::plainLayer(4, 3)});
  std::string whyNot = "unchanged";
  const std::optional<FrameTime> time = timeFrames(model, 0.01, whyNot);
  ASSERT_TRUE(time);
  EXPECT_LT(0, time->fastest);
  EXPECT_LE(time->fastest, time->median);
  EXPECT_LE(time->median, time->slowest);
  EXPECT_LT(0u, time->frames);
  EXPECT_EQ(whyNot, "unchanged");
}

TEST(FrameTimer, evaluatesFramesOneByOneAndWarmsUp) {
  CountingPass pass;
  std::string whyNot;
  const std::optional<FrameTime> time = timeFrames(pass, 0.01, whyNot);
  ASSERT_TRUE(time);
  EXPECT_LT(time->frames, pass.frames);  // those of the warm-up do not count
  EXPECT_EQ(pass.largestCall, 1);
  EXPECT_TRUE(pass.areWithinOne);
}

TEST(FrameTimer, tellsItsWatchOfAllSteps) {
  CountingPass pass;
  std::string whyNot;
  std::size_t steps = 0;
  ASSERT_TRUE(timeFrames(pass, 0.01, whyNot, [&steps](std::size_t done) { steps += done; }));
  EXPECT_EQ(steps, mlnn::kTimingSteps);
}

TEST(FrameTimer, needsOutputs) {
  std::string whyNot;
  MultiLayerNNModel model = mlnn::test::modelOf({NNLayer(4, 0, false)});
  EXPECT_FALSE(timeFrames(model, 0.01, whyNot));
  EXPECT_EQ(whyNot, "the model has no outputs");
  for (const int inputs : {1, 3}) {
    CountingPass pass(0, inputs);
    whyNot.clear();
    EXPECT_FALSE(timeFrames(pass, 0.01, whyNot));
    EXPECT_EQ(whyNot, "the model has no outputs");
    EXPECT_EQ(pass.frames, 0u);
  }
}

TEST(FrameTimer, tellsWhatCannotBeRun) {
  std::string whyNot;
  RefusingPass pass;
  EXPECT_FALSE(timeFrames(pass, 0.01, whyNot));
  EXPECT_EQ(whyNot, "the model cannot be run");
  MultiLayerNNModel model =
      mlnn::test::modelOf({mlnn::test::plainLayer(4, 3), mlnn::test::plainLayer(2, 1)});
  whyNot.clear();
  EXPECT_NE(stderrOf([&] { EXPECT_FALSE(timeFrames(model, 0.01, whyNot)); }), "");
  EXPECT_EQ(whyNot, "the model cannot be run");
}

}  // namespace
