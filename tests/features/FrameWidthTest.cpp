#include <gtest/gtest.h>

#include <limits>

#include "features/FrameWidth.h"

namespace {

using mlnn::framesMakeInputs;
using mlnn::frameWidth;

DbnFeatureDescription description(int bands, int left, int right) {
  DbnFeatureDescription desc(DbnFeatureDescription::MelDeltas);
  desc.numBands = bands;
  desc.winSizeLeft = left;
  desc.winSizeRight = right;
  return desc;
}

TEST(FrameWidth, windowCountsTheFrameItself) {
  EXPECT_EQ(mlnn::windowLength(description(2, 0, 0)), 1);
  EXPECT_EQ(mlnn::windowLength(description(2, 3, 1)), 5);
  constexpr int kMost = std::numeric_limits<int>::max();
  EXPECT_EQ(mlnn::windowLength(description(2, kMost, kMost)), (int64_t{1} << 32) - 1);
}

TEST(FrameWidth, framesMakeInputsWhereTheyFillTheWindow) {
  EXPECT_TRUE(framesMakeInputs(description(2, 1, 1), 2, 6));
  EXPECT_TRUE(framesMakeInputs(description(1, 1, 1), 1, 3));
  EXPECT_FALSE(framesMakeInputs(description(2, 1, 1), 2, 7));
  EXPECT_FALSE(framesMakeInputs(description(2, 1, 1), 0, 0));
  EXPECT_FALSE(framesMakeInputs(description(2, -1, 1), 6, 6));
  EXPECT_FALSE(framesMakeInputs(description(2, 1, -1), 6, 6));
}

TEST(FrameWidth, isWhatTheDescriptionStates) {
  EXPECT_EQ(frameWidth(description(2, 1, 1), 6), 2);
  EXPECT_EQ(frameWidth(description(2, 1, 1), 999), 2);
}

TEST(FrameWidth, unstatedItIsTheNormalisationsWhereThatFits) {
  EXPECT_EQ(frameWidth(description(0, 1, 1), 360), 120);
  EXPECT_EQ(frameWidth(description(0, 1, 1), 361), 0);
}

}  // namespace
