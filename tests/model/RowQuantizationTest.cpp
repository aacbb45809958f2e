#include <gtest/gtest.h>

#include <cmath>
#include <memory>
#include <random>

#include "layers/RowCodes.h"
#include "model/MultiLayerNNModel.h"
#include "model/RowQuantization.h"
#include "tests/support/CaptureStderr.h"
#include "tests/support/TestModels.h"

namespace {

using mlnn::QuantizedLayer;
using mlnn::quantizeRows;
using mlnn::RowCodes;
using mlnn::RowQuantization;
using mlnn::RowScale;
using mlnn::test::batchNormLayer;
using mlnn::test::fillValues;
using mlnn::test::modelOf;
using mlnn::test::plainLayer;
using mlnn::test::sameBits;
using mlnn::test::sameLayer;
using mlnn::test::sameLayers;
using mlnn::test::stderrOf;

constexpr float kMaxFloat = std::numeric_limits<float>::max();
constexpr float kMinDenormal = std::numeric_limits<float>::denorm_min();

RowQuantization withBits(int bits, RowScale scale = RowScale::kLargest) {
  RowQuantization options;
  options.bits = bits;
  options.scale = scale;
  return options;
}

// A plain layer of one output with these weights.
NNLayer rowOf(const std::vector<float>& weights) {
  NNLayer layer(static_cast<int>(weights.size()), 1, false);
  for (std::size_t i = 0; i < weights.size(); ++i) layer.weights.data()[i] = weights[i];
  layer.bias[0] = 0.1f;
  return layer;
}

std::vector<float> quantizedRow(const std::vector<float>& weights, const RowQuantization& options) {
  MultiLayerNNModel model = modelOf({rowOf(weights)});
  EXPECT_EQ(quantizeRows(model, options), 0);
  const Eigen::MatrixXf& row = model.layers[0]->weights;
  EXPECT_EQ(model.layers[0]->bias[0], 0.1f);
  return std::vector<float>(row.data(), row.data() + row.size());
}

RowCodes codesOf(const NNLayer& layer) {
  const auto rows = static_cast<std::size_t>(layer.weights.rows());
  const auto cols = static_cast<std::size_t>(layer.weights.cols());
  const std::optional<RowCodes> codes = RowCodes::find(layer.weights.data(), rows, cols);
  EXPECT_TRUE(codes);
  return codes.value_or(RowCodes());
}

TEST(RowQuantization, weightsGoToTheNearestMultipleOfTheScale) {
  EXPECT_EQ(quantizedRow({127, 0.4f, -0.6f, 12.3f, -126.9f}, withBits(8)),
            (std::vector<float>{127, 0, -1, 12, -127}));
  EXPECT_EQ(quantizedRow({3.5f, 0.2f, 0.3f, -1}, withBits(4)),
            (std::vector<float>{3.5f, 0, 0.5f, -1}));
  EXPECT_EQ(quantizedRow({-2, 0.9f, 1.1f}, withBits(2)), (std::vector<float>{-2, 0, 2}));
}

TEST(RowQuantization, ofTwoThatAreAsNearItIsTheEvenOne) {
  EXPECT_EQ(quantizedRow({7, 0.5f, 1.5f, 2.5f, -0.5f, -1.5f, -2.5f}, withBits(4)),
            (std::vector<float>{7, 0, 2, 2, 0, -2, -2}));
  // Next to the middle it is the nearer one.
  const float above = std::nextafter(0.5f, 1.0f);
  const float below = std::nextafter(1.5f, 1.0f);
  EXPECT_EQ(quantizedRow({7, above, -above, below}, withBits(4)),
            (std::vector<float>{7, 1, -1, 1}));
}

TEST(RowQuantization, aZeroHasNoSign) {
  const std::vector<float> row = quantizedRow({7, -0.1f, -0.0f}, withBits(4));
  EXPECT_FALSE(std::signbit(row[1]));
  EXPECT_FALSE(std::signbit(row[2]));
  const std::vector<float> zeros = quantizedRow({-0.0f, 0}, withBits(4));
  EXPECT_EQ(zeros, (std::vector<float>{0, 0}));
  EXPECT_FALSE(std::signbit(zeros[0]));
}

// A seventh of 1 has more than 17 bits; the scale is the next above that has not.
TEST(RowQuantization, theScaleIsRoundedUpToSeventeenBits) {
  const float scale = 0x1.2493p-3f;
  ASSERT_GT(scale, 1.0 / 7);
  ASSERT_LT(scale - 0x1p-19f, 1.0 / 7);
  EXPECT_EQ(quantizedRow({1, 0.14f}, withBits(4)), (std::vector<float>{7 * scale, scale}));
}

TEST(RowQuantization, everyWeightIsExactlyACodeTimesTheScale) {
  for (int bits = 2; bits <= 8; ++bits) {
    for (const RowScale scale : {RowScale::kLargest, RowScale::kLeastSquares}) {
      MultiLayerNNModel model = modelOf({plainLayer(50, 37, 3), plainLayer(37, 5, 4)});
      ASSERT_EQ(quantizeRows(model, withBits(bits, scale)), 0);
      for (const NNLayer* layer : model.layers) {
        const RowCodes codes = codesOf(*layer);
        EXPECT_EQ(codes.bits, bits <= 4 ? 4u : 8u);
        const int largest = (1 << (bits - 1)) - 1;
        for (std::size_t r = 0; r < codes.rows; ++r) {
          for (std::size_t c = 0; c < codes.cols; ++c) {
            ASSERT_LE(std::abs(codes.view().code(r, c)), largest);
          }
        }
      }
    }
  }
}

TEST(RowQuantization, anErrorIsAtMostHalfOfTheScale) {
  const NNLayer layer = plainLayer(200, 30, 7);
  MultiLayerNNModel model = modelOf({layer});
  ASSERT_EQ(quantizeRows(model, withBits(8)), 0);
  for (Eigen::Index r = 0; r < 30; ++r) {
    const double largest = double{layer.weights.row(r).cwiseAbs().maxCoeff()};
    const double bound = largest / 127 * (1 + std::ldexp(1.0, -16)) / 2;
    for (Eigen::Index c = 0; c < 200; ++c) {
      ASSERT_LE(std::fabs(double{layer.weights(r, c)} - model.layers[0]->weights(r, c)), bound);
    }
  }
}

TEST(RowQuantization, aSecondTimeChangesNothing) {
  for (int bits = 2; bits <= 8; ++bits) {
    MultiLayerNNModel model = modelOf({plainLayer(50, 37, 3), batchNormLayer(37, 5, 4)});
    ASSERT_EQ(quantizeRows(model, withBits(bits)), 0);
    const MultiLayerNNModel once(model);
    ASSERT_EQ(quantizeRows(model, withBits(bits)), 0);
    EXPECT_TRUE(sameLayers(model, once)) << bits;
  }
}

// --- The ends of the range ---

TEST(RowQuantization, theLargestFloatsStayFinite) {
  for (int bits = 2; bits <= 8; ++bits) {
    for (const RowScale scale : {RowScale::kLargest, RowScale::kLeastSquares}) {
      const std::vector<float> row =
          quantizedRow({kMaxFloat, -kMaxFloat, 1}, withBits(bits, scale));
      ASSERT_TRUE(std::isfinite(row[0])) << bits;
      EXPECT_GE(row[0], kMaxFloat * (1 - 0x1p-16f)) << bits;
      EXPECT_EQ(row[1], -row[0]);
      EXPECT_EQ(row[2], 0);
    }
  }
}

TEST(RowQuantization, scalesAreNeverLessThanTheSmallestFloat) {
  const float d = kMinDenormal;
  EXPECT_EQ(quantizedRow({d, -d, 0}, withBits(8)), (std::vector<float>{d, -d, 0}));
  EXPECT_EQ(quantizedRow({200 * d, 3 * d, d}, withBits(8)),
            (std::vector<float>{200 * d, 4 * d, 0}));
}

TEST(RowQuantization, layersWithoutWeightsStay) {
  MultiLayerNNModel model = modelOf({NNLayer(0, 3, false), NNLayer(3, 0, false)});
  model.layers.push_back(nullptr);
  std::vector<QuantizedLayer> layers;
  EXPECT_EQ(quantizeRows(model, withBits(8), &layers), 0);
  EXPECT_EQ(layers.size(), 3u);
  EXPECT_EQ(layers[0].relativeError, 0);
  EXPECT_FALSE(layers[2].isQuantized);
  EXPECT_EQ(model.layers[0]->weights.rows(), 3);
  EXPECT_EQ(model.layers[2], nullptr);
  MultiLayerNNModel empty;
  EXPECT_EQ(quantizeRows(empty, withBits(8), &layers), 0);
  EXPECT_TRUE(layers.empty());
}

// --- Least squares ---

TEST(RowQuantization, leastSquaresClipWhereThatCostsLess) {
  // One weight far out: the others are worth more.
  std::vector<float> weights(64, 0.55f);
  weights[0] = 1;
  const std::vector<float> largest = quantizedRow(weights, withBits(2));
  EXPECT_EQ(largest[0], 1);
  EXPECT_EQ(largest[1], 1);
  const std::vector<float> squares = quantizedRow(weights, withBits(2, RowScale::kLeastSquares));
  EXPECT_EQ(squares[0], 0.5625f);  // 36 of 64
  EXPECT_EQ(squares[1], 0.5625f);
}

TEST(RowQuantization, leastSquaresHaveNoLargerError) {
  for (int bits = 2; bits <= 8; ++bits) {
    MultiLayerNNModel largest = modelOf({plainLayer(300, 20, 5)});
    MultiLayerNNModel squares(largest);
    std::vector<QuantizedLayer> a;
    std::vector<QuantizedLayer> b;
    ASSERT_EQ(quantizeRows(largest, withBits(bits), &a), 0);
    ASSERT_EQ(quantizeRows(squares, withBits(bits, RowScale::kLeastSquares), &b), 0);
    EXPECT_LE(b[0].relativeError, a[0].relativeError) << bits;
  }
}

// --- Layers left alone ---

TEST(RowQuantization, tellsTheRelativeErrorOfEachLayer) {
  MultiLayerNNModel model = modelOf({rowOf({3, 4, 0.25f}), rowOf({1, -1})});
  std::vector<QuantizedLayer> layers;
  ASSERT_EQ(quantizeRows(model, withBits(2), &layers), 0);
  ASSERT_EQ(layers.size(), 2u);
  EXPECT_EQ(model.layers[0]->weights, Eigen::RowVector3f(4, 4, 0));
  EXPECT_EQ(layers[0].relativeError, std::sqrt(1.0625 / 25.0625));
  EXPECT_TRUE(layers[0].isQuantized);
  EXPECT_EQ(layers[1].relativeError, 0);
  EXPECT_TRUE(layers[1].isQuantized);
}

TEST(RowQuantization, aLayerOverTheBoundStaysAsItIs) {
  const NNLayer left = rowOf({3, 4, 0.25f});
  MultiLayerNNModel model = modelOf({left, rowOf({2, 1.9f})});
  RowQuantization options = withBits(2);
  options.largestError = 0.1;
  std::vector<QuantizedLayer> layers;
  ASSERT_EQ(quantizeRows(model, options, &layers), 0);
  EXPECT_TRUE(sameLayer(*model.layers[0], left));
  EXPECT_FALSE(layers[0].isQuantized);
  EXPECT_GT(layers[0].relativeError, 0.1);
  EXPECT_EQ(model.layers[1]->weights, Eigen::RowVector2f(2, 2));
  EXPECT_TRUE(layers[1].isQuantized);
}

// --- Batch norm ---

TEST(RowQuantization, aBatchNormLayerKeepsItsVectors) {
  const NNLayer before = batchNormLayer(20, 6);
  MultiLayerNNModel model = modelOf({before});
  std::vector<QuantizedLayer> layers;
  ASSERT_EQ(quantizeRows(model, withBits(8), &layers), 0);
  NNLayer after = *model.layers[0];
  EXPECT_TRUE(layers[0].isQuantized);
  EXPECT_FALSE(layers[0].isFolded);
  EXPECT_FALSE(sameBits(after.weights, before.weights));
  codesOf(after);
  after.weights = before.weights;
  EXPECT_TRUE(sameLayer(after, before));
}

TEST(RowQuantization, powersOfTwoAreFoldedToTheBit) {
  NNLayer layer = batchNormLayer(20, 6);
  layer.gamma_inf << 1, -2, 0.25f, 64, -0.5f, 1024;
  layer.weights(1, 3) = 0;
  MultiLayerNNModel model = modelOf({layer});
  MultiLayerNNModel kept(model);
  kept.layers[0]->gamma_inf[0] = 1.5f;
  ASSERT_EQ(quantizeRows(kept, withBits(8)), 0);
  ASSERT_TRUE(kept.layers[0]->isBatchNorm);
  kept.layers[0]->gamma_inf[0] = 1;
  std::vector<QuantizedLayer> layers;
  ASSERT_EQ(quantizeRows(model, withBits(8), &layers), 0);
  EXPECT_TRUE(layers[0].isFolded);
  EXPECT_FALSE(model.layers[0]->isBatchNorm);
  EXPECT_TRUE(sameBits(model.layers[0]->bias, layer.beta_inf));
  EXPECT_TRUE(sameBits(model.layers[0]->gamma_inf, layer.gamma_inf));
  EXPECT_FALSE(std::signbit(model.layers[0]->weights(1, 3)));
  codesOf(*model.layers[0]);
  Eigen::MatrixXf inputs(20, 9);
  fillValues(inputs, 8);
  Eigen::MatrixXf folded;
  Eigen::MatrixXf unfolded;
  const std::unique_ptr<NNFwdPassFromFile> pass(model.createFwdPass());
  const std::unique_ptr<NNFwdPassFromFile> keptPass(kept.createFwdPass());
  ASSERT_EQ(pass->evaluate(inputs, folded), 0);
  ASSERT_EQ(keptPass->evaluate(inputs, unfolded), 0);
  EXPECT_TRUE(sameBits(folded, unfolded));
}

TEST(RowQuantization, aFactorThatLosesBitsIsNotFolded) {
  for (const float factor :
       {0.0f, 3.0f, 0x1p127f, 0x1p-140f, std::nanf(""), std::numeric_limits<float>::infinity()}) {
    NNLayer layer = batchNormLayer(3, 1);
    layer.weights << 12.75f, 0.1f, -4;
    layer.gamma_inf << factor;
    MultiLayerNNModel model = modelOf({layer});
    ASSERT_EQ(quantizeRows(model, withBits(8)), 0);
    EXPECT_TRUE(model.layers[0]->isBatchNorm) << factor;
  }
}

// --- Refusals ---

TEST(RowQuantization, bitsOutOfRangeAreRefused) {
  for (const int bits : {-1, 0, 1, 9, 32}) {
    MultiLayerNNModel model = modelOf({plainLayer(5, 4)});
    const MultiLayerNNModel before(model);
    std::vector<QuantizedLayer> layers(7);
    int result = 0;
    EXPECT_EQ(stderrOf([&] { result = quantizeRows(model, withBits(bits), &layers); }),
              "ERROR: quantizeRows: bits must be 2 to 8, got " + std::to_string(bits) + "\n");
    EXPECT_EQ(result, 1);
    EXPECT_TRUE(sameLayers(model, before));
    EXPECT_EQ(layers.size(), 7u);
  }
}

TEST(RowQuantization, weightsThatAreNotFiniteAreRefused) {
  for (const float bad : {std::nanf(""), std::numeric_limits<float>::infinity(),
                          -std::numeric_limits<float>::infinity()}) {
    MultiLayerNNModel model = modelOf({plainLayer(5, 4), plainLayer(4, 3)});
    model.layers[1]->weights(2, 1) = bad;
    const MultiLayerNNModel before(model);
    int result = 0;
    EXPECT_EQ(stderrOf([&] { result = quantizeRows(model, withBits(8)); }),
              "ERROR: quantizeRows: layer 2 has a weight that is not finite\n");
    EXPECT_EQ(result, 1);
    EXPECT_TRUE(sameLayers(model, before));
  }
}

}  // namespace
