#include <gtest/gtest.h>

#include "os/Builtins.h"

namespace mlnn {
namespace {

TEST(Builtins, countZerosOnBothSidesOfTheBits) {
  for (int bit = 0; bit < 64; ++bit) {
    EXPECT_EQ(zerosBelow(uint64_t{1} << bit), bit);
    EXPECT_EQ(zerosBelow(~uint64_t{0} << bit), bit);
    EXPECT_EQ(zerosAbove(uint64_t{1} << bit), 63 - bit);
    EXPECT_EQ(zerosAbove(~uint64_t{0} >> bit), bit);
  }
}

TEST(Builtins, fetchWhatNeedNotExist) {
  prefetch(nullptr);
  prefetchOuter(nullptr);
}

}  // namespace
}  // namespace mlnn
