#include <gtest/gtest.h>

#include <limits>

#include "model/TextNumbers.h"
#include "tests/support/TestModels.h"
#include "text/Numbers.h"

namespace {

using Lines = std::vector<std::string>;
using mlnn::findLostNumbers;
using mlnn::kExactDigits;
using mlnn::Watch;
using mlnn::test::modelOf;

constexpr float kLargest = std::numeric_limits<float>::max();
constexpr float kInfinity = std::numeric_limits<float>::infinity();

NNLayer layerOf(float weight, float bias) {
  NNLayer layer(1, 1, false);
  layer.weights(0, 0) = weight;
  layer.bias[0] = bias;
  return layer;
}

TEST(TextNumbers, nineDigitsLoseNone) {
  Lines lost;
  const MultiLayerNNModel model = modelOf({layerOf(0.1f, kLargest), layerOf(1e-45f, -0.0f)});
  EXPECT_EQ(findLostNumbers(model, kExactDigits, {}, lost), "");
  EXPECT_EQ(lost, Lines{});
}

TEST(TextNumbers, countsThoseThatFewerDigitsRound) {
  Lines lost;
  MultiLayerNNModel model = modelOf({layerOf(0.12f, 0.125f), layerOf(0.5f, 0.001f)});
  EXPECT_EQ(findLostNumbers(model, 2, {}, lost), "");
  EXPECT_EQ(lost, Lines{"1 number exactly, with 2 digits"});
  lost.clear();
  model.loss = {0.123f, 0.5f};
  EXPECT_EQ(findLostNumbers(model, 1, {}, lost), "");
  EXPECT_EQ(lost, Lines{"3 numbers exactly, with 1 digit"});
}

TEST(TextNumbers, refusesThoseThatAreNotFinite) {
  Lines lost;
  MultiLayerNNModel model = modelOf({layerOf(0.1f, 1), layerOf(kInfinity, -kInfinity)});
  EXPECT_EQ(findLostNumbers(model, kExactDigits, {}, lost),
            "the text format cannot hold values that are not finite: there are 2 in layer 2");
  model.accuracy = {std::numeric_limits<float>::quiet_NaN()};
  EXPECT_EQ(findLostNumbers(model, kExactDigits, {}, lost),
            "the text format cannot hold values that are not finite: there is 1 in the training "
            "curves");
  EXPECT_EQ(lost, Lines{});
}

TEST(TextNumbers, refusesThoseThatAreRoundedBeyondSinglePrecision) {
  Lines lost;
  EXPECT_EQ(findLostNumbers(modelOf({layerOf(kLargest, -kLargest)}), 1, {}, lost), "");
  EXPECT_EQ(lost, Lines{"2 numbers exactly, with 1 digit"});
  lost.clear();
  EXPECT_EQ(findLostNumbers(modelOf({layerOf(kLargest, -kLargest)}), 3, {}, lost), "");
  EXPECT_EQ(findLostNumbers(modelOf({layerOf(kLargest, 1)}), 4, {}, lost),
            "with 4 digits the text could not be read again: 1 value in layer 1 would be rounded "
            "beyond single precision");
}

TEST(TextNumbers, namesArraysWithoutAPlace) {
  Lines lost;
  NNLayer batchNorm = mlnn::test::batchNormLayer(2, 2);
  const MultiLayerNNModel model = modelOf({mlnn::test::foldedLayer(1, 2), batchNorm});
  EXPECT_EQ(findLostNumbers(model, kExactDigits, {}, lost), "");
  EXPECT_EQ(lost, (Lines{"the batch-norm vectors that plain layer 1 was folded from",
                         "the unused bias of batch-norm layer 2"}));
  batchNorm.bias.setZero();
  lost.clear();
  EXPECT_EQ(findLostNumbers(modelOf({batchNorm}), kExactDigits, {}, lost), "");
  EXPECT_EQ(lost, Lines{});
}

TEST(TextNumbers, isStoppedByWhatItsWatchThrows) {
  Lines lost;
  const MultiLayerNNModel model = modelOf({mlnn::test::plainLayer(300, 300)});
  const Watch watch = [](std::size_t) { throw 1; };
  EXPECT_THROW(findLostNumbers(model, 4, watch, lost), int);
}

}  // namespace
