#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <vector>

#include "features/FrameRing.h"

namespace {

using testing::ElementsAre;

TEST(FrameRing, normalisesByTwoRoundings) {
  const float frame[] = {0.1f, 3, -2};
  const float minvals[] = {0.3f, 1, 2};
  const float normvals[] = {0.7f, 0.5f, -4};
  float out[4] = {9, 9, 9, 9};
  mlnn::normaliseFrame(frame, 3, minvals, normvals, out);
  const float difference = 0.1f - 0.3f;
  EXPECT_THAT(out, ElementsAre(difference * 0.7f, 1, 16, 9));
  mlnn::normaliseFrame(frame, 3, nullptr, nullptr, out);
  EXPECT_THAT(out, ElementsAre(0.1f, 3, -2, 9));
}

// Frame t holds 10 t and 10 t + 1.
class Ring : public testing::Test {
 protected:
  void put(int64_t t) {
    ring_.slot(t)[0] = static_cast<float>(10 * t);
    ring_.slot(t)[1] = static_cast<float>(10 * t + 1);
  }

  std::vector<float> window(int64_t t, int64_t last) {
    std::vector<float> input(8);
    ring_.copyWindow(t, last, input.data());
    return input;
  }

  std::array<float, 8> memory_{};
  mlnn::FrameRing ring_{memory_.data(), 2, 1, 2};
};

TEST_F(Ring, keepsTheLastFramesOnly) {
  EXPECT_EQ(ring_.slot(0), memory_.data());
  EXPECT_EQ(ring_.slot(3), memory_.data() + 6);
  EXPECT_EQ(ring_.slot(4), memory_.data());
  EXPECT_EQ(ring_.slot(int64_t{4} << 40), memory_.data());
}

TEST_F(Ring, repeatsTheFirstFrameAndTheLast) {
  put(0);
  put(1);
  EXPECT_THAT(window(0, 1), ElementsAre(0, 1, 0, 1, 0, 1, 10, 11));
  EXPECT_THAT(window(1, 1), ElementsAre(0, 1, 0, 1, 10, 11, 10, 11));
  EXPECT_THAT(window(0, 0), ElementsAre(0, 1, 0, 1, 0, 1, 0, 1));
}

TEST_F(Ring, goesRound) {
  for (int64_t t = 0; t < 7; ++t) put(t);
  EXPECT_THAT(window(5, 6), ElementsAre(30, 31, 40, 41, 50, 51, 60, 61));
}

}  // namespace
