#include <gtest/gtest.h>

#include "tests/support/CaptureStderr.h"
#include "tests/support/TestModels.h"
#include "tools/commands/CoarseGrid.h"

namespace {

using mlnn::shareBelowAStep;
using mlnn::test::stderrOf;

// Parameters from -1 to 1, so that a grid of 3 bits has steps of a quarter: of eight weights that
// are not zero three are smaller.
MultiLayerNNModel model() {
  NNLayer layer(3, 3, false);
  layer.weights << -1, 1, 0.5f, 0.25f, -0.26f, 0.2f, -0.1f, 0.01f, 0;
  layer.bias << 0.001f, 0, 0;
  return mlnn::test::modelOf({layer});
}

TEST(CoarseGrid, countsWeightsBelowAStep) {
  EXPECT_EQ(shareBelowAStep(model(), 3), 3.0 / 8);
  EXPECT_EQ(shareBelowAStep(model(), 0), 1);
  EXPECT_EQ(shareBelowAStep(model(), 20), 0);
}

TEST(CoarseGrid, countsNoneWhereThereAreNone) {
  EXPECT_EQ(shareBelowAStep(MultiLayerNNModel(), 8), 0);
  NNLayer zeros(2, 2, false);
  zeros.weights.setZero();
  zeros.bias.setOnes();
  EXPECT_EQ(shareBelowAStep(mlnn::test::modelOf({zeros}), 8), 0);
}

TEST(CoarseGrid, warnsOfATenthOrMore) {
  EXPECT_EQ(stderrOf([] { mlnn::warnOfCoarseGrid(model(), 3); }),
            "Warning: 38 % of the weights are smaller than a step of 3 bits and become zero or the "
            "same; see what that loses with 'mlnn reduce --sweep', or use 'mlnn quantize'\n");
  EXPECT_EQ(stderrOf([] { mlnn::warnOfCoarseGrid(model(), 8); }), "");
}

}  // namespace
