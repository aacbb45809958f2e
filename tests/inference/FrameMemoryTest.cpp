#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "inference/FrameMemory.h"

namespace {

using mlnn::InputFrames;
using mlnn::OutputFrames;
using testing::ElementsAre;

class FrameMemory : public testing::Test {
 protected:
  float memory_[40] = {};
};

TEST_F(FrameMemory, meetsWhereTheFirstOrTheLastFloatIsShared) {
  const OutputFrames outputs(memory_ + 20, 2, 3, 4);  // floats 20 to 29
  EXPECT_TRUE(mlnn::overlap(InputFrames(memory_ + 29, 1, 1), outputs));
  EXPECT_FALSE(mlnn::overlap(InputFrames(memory_ + 30, 1, 1), outputs));
  EXPECT_TRUE(mlnn::overlap(InputFrames(memory_ + 11, 5, 2), outputs));
  EXPECT_FALSE(mlnn::overlap(InputFrames(memory_ + 10, 5, 2), outputs));
}

TEST_F(FrameMemory, isWalkedThroughBackwardsToo) {
  const OutputFrames outputs(memory_ + 20, 2, 1);
  EXPECT_TRUE(mlnn::overlap(InputFrames(memory_ + 30, 2, 4, -3), outputs));   // from 21 on
  EXPECT_FALSE(mlnn::overlap(InputFrames(memory_ + 31, 2, 4, -3), outputs));  // from 22 on
  EXPECT_TRUE(mlnn::overlap(InputFrames(memory_ + 25, 5, 1, 5, -1), outputs));
  EXPECT_FALSE(mlnn::overlap(InputFrames(memory_ + 26, 5, 1, 5, -1), outputs));
}

TEST_F(FrameMemory, meetsNothingWhereThereIsNothing) {
  const OutputFrames outputs(memory_, 2, 3);
  EXPECT_FALSE(mlnn::overlap(InputFrames(memory_, 0, 3), outputs));
  EXPECT_FALSE(mlnn::overlap(InputFrames(memory_, 3, 0), outputs));
  EXPECT_FALSE(mlnn::overlap(InputFrames(memory_, 3, 3), OutputFrames(memory_, 0, 3)));
  EXPECT_FALSE(mlnn::overlap(InputFrames(nullptr, 3, 0), OutputFrames(nullptr, 2, 0)));
}

TEST_F(FrameMemory, isGatheredWhereKernelsCannotReadIt) {
  EXPECT_FALSE(mlnn::mustBeGathered(InputFrames(memory_, 3, 4)));
  EXPECT_FALSE(mlnn::mustBeGathered(InputFrames(memory_, 3, 4, 0)));  // the same frame
  EXPECT_TRUE(mlnn::mustBeGathered(InputFrames(memory_, 3, 4, 3, 2)));
  EXPECT_FALSE(mlnn::mustBeGathered(InputFrames(memory_, 1, 4, 3, 2)));
  EXPECT_TRUE(mlnn::mustBeGathered(InputFrames(memory_ + 9, 3, 4, -3)));
  EXPECT_FALSE(mlnn::mustBeGathered(InputFrames(memory_ + 9, 3, 1, -3)));
}

TEST_F(FrameMemory, givesSomeOfTheFrames) {
  const InputFrames some = mlnn::someOf(InputFrames(memory_ + 20, 2, 5, -4, 2), 3, 2);
  EXPECT_EQ(some.values, memory_ + 8);
  EXPECT_EQ(some.frames, 2);
  EXPECT_EQ(some.frameStride, -4);
  EXPECT_EQ(some.valueStride, 2);
  EXPECT_EQ(mlnn::someOf(InputFrames(nullptr, 0, 5), 3, 2).values, nullptr);
}

TEST_F(FrameMemory, isCopiedFrameByFrame) {
  float from[6] = {1, 2, 3, 4, 5, 6};
  mlnn::gather(InputFrames(from + 5, 2, 2, -2, -1), memory_, 3);
  EXPECT_THAT(std::vector<float>(memory_, memory_ + 6), ElementsAre(6, 5, 0, 4, 3, 0));
  mlnn::copyFrames(OutputFrames(from, 2, 2, 4), OutputFrames(memory_ + 10, 2, 2, 3));
  EXPECT_THAT(std::vector<float>(memory_ + 10, memory_ + 16), ElementsAre(1, 2, 0, 5, 6, 0));
}

}  // namespace
