#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <thread>

#include "inference/Pace.h"

namespace {

using mlnn::Pace;
using mlnn::Watch;

const Watch kWatch = [](std::size_t) {};

TEST(Pace, takesAllFramesWhereNobodyWatches) {
  Pace pace(Watch(), 1000);
  EXPECT_EQ(pace.frames(), 1000);
  pace.run([] { std::this_thread::sleep_for(std::chrono::milliseconds(25)); });
  EXPECT_EQ(pace.frames(), 1000);
}

TEST(Pace, beginsWithFew) {
  EXPECT_EQ(Pace(kWatch, 1000).frames(), 16);
  EXPECT_EQ(Pace(kWatch, 5).frames(), 5);
}

// However busy the machine is, some of these take no time.
TEST(Pace, comesToTheMostWhereWorkTakesNoTime) {
  Pace pace(kWatch, 100);
  for (int i = 0; i < 10000 && pace.frames() < 100; ++i) {
    const Eigen::Index before = pace.frames();
    pace.run([] {});
    EXPECT_TRUE(pace.frames() == before ||
                pace.frames() == std::min(2 * before, Eigen::Index{100}));
  }
  EXPECT_EQ(pace.frames(), 100);
}

TEST(Pace, takesNoMoreWhereWorkTakesTime) {
  Pace pace(kWatch, 1000);
  pace.run([] { std::this_thread::sleep_for(std::chrono::milliseconds(25)); });
  EXPECT_EQ(pace.frames(), 16);
}

}  // namespace
