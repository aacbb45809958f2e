#include <gtest/gtest.h>

#include <limits>
#include <string>
#include <vector>

#include "analysis/QuantizationDiff.h"
#include "inference/BiasCorrection.h"
#include "tests/support/CaptureStderr.h"
#include "tests/support/TestModels.h"

namespace {

using mlnn::findQuantization;
using mlnn::LayerQuantization;
using mlnn::quantizeRows;
using mlnn::RowQuantization;
using mlnn::RowScale;
using mlnn::test::batchNormLayer;
using mlnn::test::modelOf;
using mlnn::test::plainLayer;
using mlnn::test::someValues;
using mlnn::test::stderrOf;

// 20 -> 9 plain, 9 -> 8 batch norm, 8 -> 5 plain.
MultiLayerNNModel someModel() {
  return modelOf({plainLayer(20, 9, 1), batchNormLayer(9, 8, 2), plainLayer(8, 5, 3)});
}

MultiLayerNNModel quantized(const MultiLayerNNModel& model, int bits,
                            RowScale scale = RowScale::kLargest) {
  MultiLayerNNModel changed(model);
  RowQuantization options;
  options.bits = bits;
  options.scale = scale;
  EXPECT_EQ(quantizeRows(changed, options), 0);
  return changed;
}

// What is found, in words; "" for nothing.
std::string said(const MultiLayerNNModel& original, const MultiLayerNNModel& changed) {
  const auto found = findQuantization(original, changed);
  return found ? describe(*found) : "";
}

TEST(QuantizationDiff, findsTheWidth) {
  const MultiLayerNNModel model = someModel();
  for (int bits = 2; bits <= 8; ++bits) {
    const MultiLayerNNModel changed = quantized(model, bits);
    EXPECT_EQ(said(model, changed), std::to_string(bits) + " bits in layers 1-3");
    EXPECT_EQ(said(changed, model), "");
  }
}

TEST(QuantizationDiff, findsHowScalesWereFound) {
  const MultiLayerNNModel model = someModel();
  const auto found = findQuantization(model, quantized(model, 3, RowScale::kLeastSquares));
  ASSERT_TRUE(found);
  ASSERT_EQ(found->size(), 3u);
  for (const LayerQuantization& layer : *found) {
    EXPECT_EQ(layer.bits, 3);
    EXPECT_EQ(layer.scale, RowScale::kLeastSquares);
    EXPECT_FALSE(layer.isFolded);
    EXPECT_FALSE(layer.isShifted);
  }
  EXPECT_EQ(describe(*found), "3 bits with the least squared error in layers 1-3");
}

TEST(QuantizationDiff, isNothingBetweenEqualModels) {
  EXPECT_FALSE(findQuantization(someModel(), someModel()));
}

TEST(QuantizationDiff, ofLayersThatStayed) {
  const MultiLayerNNModel model = someModel();
  MultiLayerNNModel changed = quantized(model, 5);
  *changed.layers[1] = *model.layers[1];
  EXPECT_EQ(said(model, changed), "5 bits in layer 1, 5 bits in layer 3");
}

TEST(QuantizationDiff, findsBiasesThatWereCorrected) {
  MultiLayerNNModel model = someModel();
  MultiLayerNNModel changed = quantized(model, 4);
  ASSERT_EQ(mlnn::correctBiases(model, changed, someValues(20, 30, 9)), 0);
  EXPECT_EQ(said(model, changed), "4 bits in layers 1-3; other biases in layers 1-3");
  MultiLayerNNModel shifted(model);
  shifted.layers[0]->bias[0] += 1;
  EXPECT_EQ(said(model, shifted), "") << "no weight was rounded";
}

TEST(QuantizationDiff, findsBatchNormThatWasFolded) {
  MultiLayerNNModel model = someModel();
  model.layers[1]->gamma_inf << 1, 2, -4, 0.5f, 1, 1, -0.25f, 2;
  const MultiLayerNNModel changed = quantized(model, 8);
  ASSERT_FALSE(changed.layers[1]->isBatchNorm);
  EXPECT_EQ(said(model, changed),
            "8 bits in layer 1, 8 bits, batch norm folded, in layer 2, 8 bits in layer 3");
}

// Rows of zeros say nothing of the width, so that the others are looked at.
TEST(QuantizationDiff, seesPastRowsOfZeros) {
  MultiLayerNNModel model = someModel();
  model.layers[0]->weights.topRows(8).setZero();
  EXPECT_EQ(said(model, quantized(model, 6)), "6 bits in layers 1-3");
}

TEST(QuantizationDiff, isNothingWhereAnythingElseDiffers) {
  const MultiLayerNNModel model = someModel();
  const auto saidAfter = [&model](const auto& change) {
    MultiLayerNNModel changed = quantized(model, 6);
    change(changed);
    return said(model, changed);
  };
  const std::vector<Eigen::VectorXf NNLayer::*> others = {&NNLayer::gamma, &NNLayer::beta,
                                                          &NNLayer::gamma_inf};
  for (const auto array : others) {
    EXPECT_EQ(saidAfter([array](MultiLayerNNModel& m) { ((*m.layers[1]).*array)[2] += 1; }), "");
  }
  EXPECT_EQ(saidAfter([](MultiLayerNNModel& m) { m.layers[2]->weights(4, 7) += 1; }), "");
  EXPECT_EQ(saidAfter([](MultiLayerNNModel& m) { m.layers[0]->weights(0, 0) += 1; }), "");
  EXPECT_EQ(saidAfter([](MultiLayerNNModel& m) { *m.layers[2] = plainLayer(8, 4, 3); }), "");
  EXPECT_EQ(said(model, modelOf({plainLayer(20, 9, 1)})), "");
}

// Such a model cannot have been quantised; nothing is printed of that.
TEST(QuantizationDiff, isNothingOfWeightsThatAreNotFinite) {
  MultiLayerNNModel model = someModel();
  const MultiLayerNNModel changed = quantized(model, 6);
  model.layers[0]->weights(2, 2) = std::numeric_limits<float>::infinity();
  EXPECT_EQ(stderrOf([&] { EXPECT_EQ(said(model, changed), ""); }), "");
  MultiLayerNNModel nan(changed);
  nan.layers[0]->weights(2, 2) = std::numeric_limits<float>::quiet_NaN();
  EXPECT_EQ(stderrOf([&] { EXPECT_EQ(said(someModel(), nan), ""); }), "");
}

// Their columns are not counted out: the test would take minutes.
TEST(QuantizationDiff, passesOverLayersWithoutValues) {
  MultiLayerNNModel model = someModel();
  MultiLayerNNModel changed = quantized(model, 6);
  for (MultiLayerNNModel* each : {&model, &changed}) {
    for (int i = 0; i < 100; ++i) {
      each->layers.push_back(nullptr);
      each->layers.push_back(new NNLayer());
      each->layers.back()->weights.resize(0, std::numeric_limits<int>::max());
    }
  }
  EXPECT_EQ(said(model, changed), "6 bits in layers 1-3");
  changed.layers.back()->weights.resize(0, 1);
  EXPECT_EQ(said(model, changed), "");
}

}  // namespace
