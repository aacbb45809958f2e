#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <stdexcept>

#include "inference/BiasCorrection.h"
#include "model/MultiLayerNNModel.h"
#include "model/RowQuantization.h"
#include "tests/support/CaptureStderr.h"
#include "tests/support/TestModels.h"

namespace {

using mlnn::correctBiases;
using mlnn::LayerResult;
using mlnn::test::batchNormLayer;
using mlnn::test::modelOf;
using mlnn::test::plainLayer;
using mlnn::test::sameBits;
using mlnn::test::sameLayers;
using mlnn::test::someValues;
using mlnn::test::stderrOf;

// One linear layer of two inputs and one output.
MultiLayerNNModel lineOf(float first, float second, float bias) {
  NNLayer layer(2, 1, false);
  layer.weights << first, second;
  layer.bias << bias;
  return modelOf({layer});
}

MultiLayerNNModel someModel() {
  return modelOf({plainLayer(12, 9, 1), batchNormLayer(9, 7, 2), plainLayer(7, 4, 3)});
}

// The mean of what each layer computes before its activation.
std::vector<Eigen::VectorXd> meansOf(MultiLayerNNModel& model, const Eigen::MatrixXf& inputs) {
  NNFwdPassFromFile pass(model);
  Eigen::MatrixXf outputs;
  std::vector<LayerResult> layers;
  EXPECT_EQ(pass.evaluateLayers(inputs, outputs, layers), 0);
  std::vector<Eigen::VectorXd> means;
  for (const LayerResult& layer : layers) {
    means.emplace_back(layer.affine.cast<double>().rowwise().mean());
  }
  return means;
}

TEST(BiasCorrection, takesTheMeanErrorOut) {
  MultiLayerNNModel original = lineOf(1, 2, 0.5f);
  MultiLayerNNModel changed = lineOf(1, 1, 0.5f);
  Eigen::MatrixXf inputs(2, 2);
  inputs << 7, 9,  //
      1, 3;
  EXPECT_EQ(correctBiases(original, changed, inputs), 0);
  EXPECT_EQ(changed.layers[0]->bias[0], 2.5f);
  EXPECT_EQ(changed.layers[0]->weights, Eigen::RowVector2f(1, 1));
  EXPECT_EQ(original.layers[0]->bias[0], 0.5f);
}

TEST(BiasCorrection, eachLayerSeesWhatTheCorrectedOnesGive) {
  MultiLayerNNModel original = someModel();
  MultiLayerNNModel changed(original);
  mlnn::RowQuantization options;
  options.bits = 3;
  ASSERT_EQ(quantizeRows(changed, options), 0);
  const MultiLayerNNModel before(changed);
  const Eigen::MatrixXf inputs = someValues(12, 700, 5);
  const std::vector<Eigen::VectorXd> wanted = meansOf(original, inputs);
  ASSERT_GT((meansOf(changed, inputs)[2] - wanted[2]).cwiseAbs().maxCoeff(), 1e-3);
  ASSERT_EQ(correctBiases(original, changed, inputs), 0);
  const std::vector<Eigen::VectorXd> found = meansOf(changed, inputs);
  for (std::size_t i = 0; i < 3; ++i) {
    EXPECT_LT((found[i] - wanted[i]).cwiseAbs().maxCoeff(), 1e-6) << i;
    EXPECT_TRUE(sameBits(changed.layers[i]->weights, before.layers[i]->weights));
  }
  EXPECT_TRUE(sameBits(changed.layers[1]->bias, before.layers[1]->bias));
  EXPECT_FALSE(sameBits(changed.layers[1]->beta_inf, before.layers[1]->beta_inf));
  EXPECT_TRUE(sameBits(changed.layers[1]->gamma_inf, before.layers[1]->gamma_inf));
}

TEST(BiasCorrection, withoutInputsNothingChanges) {
  MultiLayerNNModel original = lineOf(1, 2, 0.5f);
  MultiLayerNNModel changed = lineOf(1, 1, 0.5f);
  EXPECT_EQ(correctBiases(original, changed, Eigen::MatrixXf(2, 0)), 0);
  EXPECT_EQ(changed.layers[0]->bias[0], 0.5f);
}

TEST(BiasCorrection, aMeanThatIsNotFiniteMovesNothing) {
  constexpr float kMax = std::numeric_limits<float>::max();
  for (const float bad : {std::nanf(""), std::numeric_limits<float>::infinity(), kMax}) {
    MultiLayerNNModel original = lineOf(1, 2, 0.5f);
    MultiLayerNNModel changed = lineOf(1, -1, 0.5f);
    Eigen::MatrixXf inputs(2, 2);
    inputs << 7, 9,  //
        bad, 3;
    EXPECT_EQ(correctBiases(original, changed, inputs), 0);
    EXPECT_EQ(changed.layers[0]->bias[0], 0.5f) << bad;
  }
}

TEST(BiasCorrection, modelsOfOtherWidthsAreRefused) {
  MultiLayerNNModel original = someModel();
  MultiLayerNNModel changed = modelOf({plainLayer(12, 9, 1)});
  const MultiLayerNNModel before(changed);
  int result = 0;
  EXPECT_EQ(
      stderrOf([&] { result = correctBiases(original, changed, Eigen::MatrixXf::Zero(12, 3)); }),
      "ERROR: correctBiases: the models have layers of other widths\n");
  EXPECT_EQ(result, 1);
  EXPECT_TRUE(sameLayers(changed, before));
}

TEST(BiasCorrection, whatThePassRefusesIsRefused) {
  MultiLayerNNModel original = someModel();
  MultiLayerNNModel changed = someModel();
  const MultiLayerNNModel before(changed);
  int result = 0;
  EXPECT_NE(
      stderrOf([&] { result = correctBiases(original, changed, Eigen::MatrixXf::Zero(11, 3)); }),
      "");
  EXPECT_EQ(result, 1);
  EXPECT_TRUE(sameLayers(changed, before));
}

TEST(BiasCorrection, canBeStopped) {
  MultiLayerNNModel original = someModel();
  MultiLayerNNModel changed = original.clone();
  mlnn::quantizeRows(changed, {});
  MultiLayerNNModel same = changed.clone();
  const Eigen::MatrixXf inputs = someValues(12, 300, 4);
  std::size_t told = 0;
  EXPECT_EQ(correctBiases(original, changed, inputs, [&told](std::size_t steps) { told += steps; }),
            0);
  EXPECT_EQ(told, 4U * 300U);  // once for the original, and for each layer
  EXPECT_EQ(correctBiases(original, same, inputs), 0);
  EXPECT_TRUE(sameLayers(changed, same));
  EXPECT_THROW(correctBiases(original, changed, inputs,
                             [](std::size_t) { throw std::out_of_range("enough"); }),
               std::out_of_range);
  EXPECT_TRUE(sameLayers(changed, same));
}

}  // namespace
