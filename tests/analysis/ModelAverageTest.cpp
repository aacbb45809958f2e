#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <string>
#include <utility>
#include <vector>

#include "analysis/ModelAverage.h"
#include "tests/support/TestModels.h"

namespace {

using mlnn::ModelAverage;
using mlnn::whyNoMean;
using mlnn::test::batchNormLayer;
using mlnn::test::foldedLayer;
using mlnn::test::fullModel;
using mlnn::test::modelOf;
using mlnn::test::plainLayer;
using mlnn::test::sameBits;
using mlnn::test::sameLayers;

constexpr float kInfinity = std::numeric_limits<float>::infinity();
constexpr float kNaN = std::numeric_limits<float>::quiet_NaN();
constexpr float kDenormal = std::numeric_limits<float>::denorm_min();
constexpr float kMax = std::numeric_limits<float>::max();

MultiLayerNNModel meanOf(const std::vector<MultiLayerNNModel>& models,
                         const std::vector<float>& shares) {
  ModelAverage average;
  for (std::size_t i = 0; i < models.size(); ++i) average.add(models[i], shares[i]);
  return average.take();
}

// A plain layer with these weights, one row, and no bias.
NNLayer rowOf(const std::vector<float>& weights) {
  NNLayer layer(static_cast<int>(weights.size()), 1, false);
  for (std::size_t i = 0; i < weights.size(); ++i) {
    layer.weights(0, static_cast<Eigen::Index>(i)) = weights[i];
  }
  return layer;
}

TEST(ModelAverageTest, sharesAreTheProportionsOfWeights) {
  using Shares = std::vector<float>;
  EXPECT_EQ(mlnn::sharesOf({7}), Shares({1}));
  EXPECT_EQ(mlnn::sharesOf({1, 3}), Shares({0.25f, 0.75f}));
  const double most = std::numeric_limits<double>::max();
  EXPECT_EQ(mlnn::sharesOf({most, most}), Shares({0.5f, 0.5f}));
  EXPECT_EQ(mlnn::sharesOf({1e-300, 1e-300, 2e-300}), Shares({0.25f, 0.25f, 0.5f}));
}

TEST(ModelAverageTest, anyNumberOfCopiesWithAnySharesIsTheModel) {
  const MultiLayerNNModel model =
      modelOf({rowOf({0.1f, 1.0f / 3, kMax, kDenormal, -0.0f, 0.0f, -kInfinity, kNaN})});
  for (const std::vector<float>& shares :
       std::vector<std::vector<float>>{{1.0f},
                                       {0.5f, 0.5f},
                                       {0.3f, 0.7f},
                                       {1.0f / 3, 1.0f / 3, 1.0f / 3},
                                       {0.2f, 0.2f, 0.2f, 0.2f, 0.2f},
                                       {0.1f, 0.01f, 0.89f}}) {
    const std::vector<MultiLayerNNModel> copies(shares.size(), model);
    EXPECT_TRUE(sameLayers(meanOf(copies, shares), model)) << shares.size();
  }
}

// The very bits of the sum of three thirds would be others.
TEST(ModelAverageTest, aParameterOnWhichTheModelsAgreeStaysToTheBit) {
  float differs = 0;
  for (float value = 0.1f; differs == 0 && value < 1; value += 0.01f) {
    const float third = 1.0f / 3 * value;
    if (third + third + third != value) differs = value;
  }
  ASSERT_NE(differs, 0.0f);
  const float third = 1.0f / 3;
  const MultiLayerNNModel mean =
      meanOf({modelOf({rowOf({differs, 1})}), modelOf({rowOf({differs, 2})}),
              modelOf({rowOf({differs, 3})})},
             {third, third, third});
  EXPECT_EQ(mean.layers[0]->weights(0, 0), differs);
  EXPECT_EQ(mean.layers[0]->weights(0, 1), third * 1 + third * 2 + third * 3);
}

TEST(ModelAverageTest, twoHalvesGiveTheExactMeanRoundedOnce) {
  const MultiLayerNNModel mean = meanOf(
      {modelOf({rowOf({1, 0.1f, kMax})}), modelOf({rowOf({2, 0.3f, kMax / 2})})}, {0.5f, 0.5f});
  const auto exact = [](float a, float b) {
    return static_cast<float>((double{a} + double{b}) / 2);
  };
  EXPECT_EQ(mean.layers[0]->weights(0, 0), 1.5f);
  EXPECT_EQ(mean.layers[0]->weights(0, 1), exact(0.1f, 0.3f));
  EXPECT_EQ(mean.layers[0]->weights(0, 2), exact(kMax, kMax / 2));
}

TEST(ModelAverageTest, everyArrayOfABatchNormLayerIsAveraged) {
  const NNLayer a = batchNormLayer(3, 2, 1);
  const NNLayer b = batchNormLayer(3, 2, 2);
  const MultiLayerNNModel mean = meanOf({modelOf({a}), modelOf({b})}, {0.25f, 0.75f});
  const NNLayer& found = *mean.layers[0];
  EXPECT_TRUE(sameBits(found.weights, 0.25f * a.weights + 0.75f * b.weights));
  EXPECT_TRUE(sameBits(found.gamma, 0.25f * a.gamma + 0.75f * b.gamma));
  EXPECT_TRUE(sameBits(found.beta, 0.25f * a.beta + 0.75f * b.beta));
  EXPECT_TRUE(sameBits(found.gamma_inf, 0.25f * a.gamma_inf + 0.75f * b.gamma_inf));
  EXPECT_TRUE(sameBits(found.beta_inf, 0.25f * a.beta_inf + 0.75f * b.beta_inf));
}

TEST(ModelAverageTest, whatIsNotAveragedIsTheFirstModels) {
  MultiLayerNNModel first = fullModel();
  MultiLayerNNModel second =
      modelOf({plainLayer(4, 3, 7), batchNormLayer(3, 5, 8), foldedLayer(5, 2, 9)});
  for (std::size_t i = 0; i < second.layers.size(); ++i) {
    second.layers[i]->actFn = first.layers[i]->actFn;
  }
  ModelAverage average;
  const auto props = first.props;
  const auto notes = first.notes.lines;
  const auto loss = first.loss;
  const Eigen::VectorXf gamma = first.layers[2]->gamma;
  const Eigen::MatrixXf weights =
      0.5f * first.layers[2]->weights + 0.5f * second.layers[2]->weights;
  average.add(std::move(first), 0.5f);
  average.add(std::move(second), 0.5f);
  EXPECT_FALSE(average.allAgree());
  const MultiLayerNNModel mean = average.take();
  EXPECT_EQ(mean.props, props);
  EXPECT_EQ(mean.notes.lines, notes);
  EXPECT_EQ(mean.loss, loss);
  EXPECT_FALSE(mean.useSoftmax);
  EXPECT_TRUE(sameBits(mean.layers[2]->weights, weights));
  EXPECT_TRUE(sameBits(mean.layers[2]->gamma, gamma));  // a plain layer's, of no use to it
}

TEST(ModelAverageTest, isEmptyAgainAfterTake) {
  ModelAverage average;
  average.add(modelOf({rowOf({1})}), 1);
  EXPECT_TRUE(average.allAgree());
  average.take();
  EXPECT_TRUE(average.first().layers.empty());
  average.add(modelOf({rowOf({5, 6})}), 1);
  EXPECT_EQ(average.take().layers[0]->weights(0, 1), 6.0f);
}

TEST(WhyNoMeanTest, namesTheFirstThingThatDiffers) {
  const MultiLayerNNModel model = modelOf({plainLayer(4, 3), plainLayer(3, 2)});
  EXPECT_EQ(whyNoMean(model, model), "");
  EXPECT_EQ(whyNoMean(model, modelOf({plainLayer(4, 3)})), "it has 1 layer instead of 2");
  EXPECT_EQ(whyNoMean(model, modelOf({plainLayer(4, 3), plainLayer(3, 5)})),
            "its layer 2 is a plain layer of 3 x 5, sigmoid instead of a plain layer of 3 x 2, "
            "sigmoid");
  EXPECT_EQ(whyNoMean(model, modelOf({batchNormLayer(4, 3), plainLayer(3, 5)})),
            "its layer 1 is a batch-norm layer of 4 x 3, sigmoid instead of a plain layer of "
            "4 x 3, sigmoid");
  MultiLayerNNModel other = model;
  other.layers[1]->actFn = ActFn::relu;
  EXPECT_EQ(whyNoMean(model, other),
            "its layer 2 is a plain layer of 3 x 2, relu instead of a plain layer of 3 x 2, "
            "sigmoid");
  other = model;
  other.useSoftmax = false;
  EXPECT_EQ(whyNoMean(model, other), "its softmax is off instead of on");
}

TEST(WhyNoMeanTest, anUnusedBiasThatIsMissingIsAnotherShape) {
  MultiLayerNNModel model = modelOf({batchNormLayer(4, 3)});
  MultiLayerNNModel other = model;
  model.layers[0]->bias = Eigen::VectorXf::Zero(3);
  other.layers[0]->bias.resize(0);
  EXPECT_EQ(whyNoMean(model, other), "its layer 1 has 0 bias values instead of 3");
}

}  // namespace
