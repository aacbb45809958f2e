#include <gtest/gtest.h>

#include <limits>
#include <vector>

#include "analysis/QuantizationOutlook.h"
#include "model/RowQuantization.h"
#include "tests/support/CaptureStderr.h"
#include "tests/support/TestModels.h"

namespace {

using mlnn::quantizationError;

// What the quantisation itself says of a layer.
double errorOf(const NNLayer& layer, int bits) {
  MultiLayerNNModel model = mlnn::test::modelOf({layer});
  mlnn::RowQuantization options;
  options.bits = bits;
  std::vector<mlnn::QuantizedLayer> layers;
  EXPECT_EQ(mlnn::quantizeRows(model, options, &layers), 0);
  return layers.front().relativeError;
}

TEST(QuantizationOutlookTest, isTheErrorOfTheQuantisation) {
  const NNLayer small = mlnn::test::batchNormLayer(30, 7);
  const NNLayer inBlocks = mlnn::test::plainLayer(9000, 70);  // more than is done at once
  for (const int bits : {2, 4, 8}) {
    EXPECT_DOUBLE_EQ(quantizationError(small, bits).value(), errorOf(small, bits));
    EXPECT_NEAR(quantizationError(inBlocks, bits).value(), errorOf(inBlocks, bits),
                1e-12 * errorOf(inBlocks, bits));
  }
}

TEST(QuantizationOutlookTest, isZeroOfZeros) {
  EXPECT_EQ(quantizationError(NNLayer(3, 2, false), 8), 0.0);
}

TEST(QuantizationOutlookTest, isNothingWhereThereIsNothingToRound) {
  mlnn::test::CaptureStderr capture;
  EXPECT_EQ(quantizationError(NNLayer(), 8), std::nullopt);
  NNLayer layer = mlnn::test::plainLayer(3, 2);
  layer.weights(1, 2) = std::numeric_limits<float>::infinity();
  EXPECT_EQ(quantizationError(layer, 8), std::nullopt);
  EXPECT_EQ(capture.text(), "");
}

}  // namespace
