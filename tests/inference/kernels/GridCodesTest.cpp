#include <gtest/gtest.h>

#include "inference/kernels/GridCodes.h"

namespace {

TEST(GridCodes, takeAByteARowOrHalfOfOne) {
  mlnn::GridCodes codes{};
  EXPECT_EQ(codes.columnBytes(), mlnn::kCodedPanelRows);
  codes.areHalfBytes = true;
  EXPECT_EQ(codes.columnBytes(), mlnn::kCodedPanelRows / 2);
}

}  // namespace
