#include <gtest/gtest.h>

#include <cstdint>
#include <vector>

#include "inference/WorkSplit.h"

namespace {

TEST(WorkSplit, wakesNoThreadForLittle) {
  EXPECT_EQ(mlnn::frameParts(1000, 1, 8), 1U);
  EXPECT_EQ(mlnn::frameParts(1000, 100, 8), 1U);
  EXPECT_EQ(mlnn::frameParts(1000, 0, 8), 1U);
  EXPECT_EQ(mlnn::frameParts(uint64_t{1} << 18, 1, 8), 1U);
  EXPECT_EQ(mlnn::frameParts(uint64_t{1} << 18, 2, 8), 2U);
  EXPECT_EQ(mlnn::frameParts(uint64_t{1} << 18, 100, 1), 1U);
  EXPECT_EQ(mlnn::rowParts(1000, uint64_t{1} << 18, 8), 1U);
  EXPECT_EQ(mlnn::rowParts(127, uint64_t{1} << 30, 8), 1U);
}

TEST(WorkSplit, makesPartsOfAboutAsManyFramesForEachThread) {
  EXPECT_EQ(mlnn::frameParts(uint64_t{1} << 20, 512, 2), 2U);
  EXPECT_EQ(mlnn::frameParts(uint64_t{1} << 20, 513, 2), 4U);
  EXPECT_EQ(mlnn::frameParts(uint64_t{1} << 20, 3, 8), 3U);
}

TEST(WorkSplit, takesRowsWhereFramesAreFewAndWeightsLarge) {
  EXPECT_TRUE(mlnn::splitsRows(uint64_t{1} << 18, 1, 2));
  EXPECT_TRUE(mlnn::splitsRows(uint64_t{1} << 18, 31, 2));
  EXPECT_FALSE(mlnn::splitsRows(uint64_t{1} << 18, 32, 2));
  EXPECT_FALSE(mlnn::splitsRows((uint64_t{1} << 18) - 1, 1, 2));
  EXPECT_EQ(mlnn::rowParts(1030, uint64_t{1} << 20, 4), 4U);
  EXPECT_EQ(mlnn::rowParts(130, uint64_t{1} << 20, 4), 2U);
}

TEST(WorkSplit, coversAllThings) {
  for (const std::size_t things : std::vector<std::size_t>{0, 1, 7, 64}) {
    EXPECT_EQ(mlnn::partBegin(0, 3, things), 0U);
    EXPECT_EQ(mlnn::partBegin(3, 3, things), things);
  }
  EXPECT_EQ(mlnn::partBegin(1, 3, 7), 2U);
  EXPECT_EQ(mlnn::partBegin(2, 3, 7), 4U);
}

}  // namespace
