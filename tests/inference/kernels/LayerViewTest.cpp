#include <gtest/gtest.h>

#include "inference/kernels/LayerView.h"

namespace {

TEST(LayerView, sumsChainsByAllRowsOfItsLayer) {
  EXPECT_EQ(mlnn::chainLength(1), 16u);
  EXPECT_EQ(mlnn::chainLength(32), 16u);
  EXPECT_EQ(mlnn::chainLength(33), 128u);
  mlnn::LayerView view{};
  view.rows = 8;
  EXPECT_EQ(view.allRows(), 8u);
  view.ofRows = 100;  // these are eight of them
  EXPECT_EQ(view.allRows(), 100u);
}

}  // namespace
