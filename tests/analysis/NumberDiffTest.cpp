#include <gtest/gtest.h>

#include "analysis/NumberDiff.h"
#include "tests/support/TestModels.h"

namespace {

using mlnn::ArrayDifference;
using mlnn::LayerDifference;
using mlnn::test::batchNormLayer;
using mlnn::test::foldedLayer;
using mlnn::test::fullModel;
using mlnn::test::modelOf;
using mlnn::test::plainLayer;
using Names = std::vector<std::string>;

LayerDifference compare(const NNLayer& a, const NNLayer& b) {
  return mlnn::compareNumbers(modelOf({a}), modelOf({b})).at(0);
}

Names namesOf(const LayerDifference& layer) {
  Names names;
  for (const ArrayDifference& array : layer.arrays) names.push_back(array.array);
  return names;
}

// The arrays with a difference.
Names differing(const LayerDifference& layer) {
  Names names;
  for (const ArrayDifference& array : layer.arrays) {
    if (array.difference.differing() > 0) names.push_back(array.array);
  }
  return names;
}

TEST(NumberDiff, ofEqualModelsIsSame) {
  const std::vector<LayerDifference> layers = mlnn::compareNumbers(fullModel(), fullModel());
  ASSERT_EQ(layers.size(), 3u);
  for (std::size_t i = 0; i < layers.size(); ++i) {
    EXPECT_EQ(layers[i].layer, i + 1);
    EXPECT_TRUE(layers[i].isSame());
    EXPECT_EQ(differing(layers[i]), Names{});
  }
}

TEST(NumberDiff, comparesTheArraysThatAKindUses) {
  EXPECT_EQ(namesOf(compare(plainLayer(2, 3), plainLayer(2, 3))), (Names{"weights", "bias"}));
  NNLayer batchNorm = batchNormLayer(2, 3);
  batchNorm.bias.resize(0);
  EXPECT_EQ(namesOf(compare(batchNorm, batchNorm)),
            (Names{"weights", "gamma", "beta", "gamma_inf", "beta_inf"}));
}

TEST(NumberDiff, findsADifferenceInEachArray) {
  const NNLayer plain = plainLayer(2, 3);
  NNLayer changed = plain;
  changed.weights(2, 1) += 1;
  EXPECT_EQ(differing(compare(plain, changed)), Names{"weights"});
  EXPECT_FALSE(compare(plain, changed).isSame());
  EXPECT_EQ(compare(plain, changed).arrays[0].difference.differing(), 1u);
  changed = plain;
  changed.bias[0] = 9;
  EXPECT_EQ(differing(compare(plain, changed)), Names{"bias"});

  const NNLayer batchNorm = batchNormLayer(2, 3);
  const std::pair<const char*, Eigen::VectorXf NNLayer::*> vectors[] = {
      {"gamma", &NNLayer::gamma},
      {"beta", &NNLayer::beta},
      {"gamma_inf", &NNLayer::gamma_inf},
      {"beta_inf", &NNLayer::beta_inf}};
  for (const auto& [name, values] : vectors) {
    changed = batchNorm;
    (changed.*values)[1] = 9;
    EXPECT_EQ(differing(compare(batchNorm, changed)), Names{name});
  }
}

TEST(NumberDiff, comparesUnusedArraysThatHoldAnything) {
  NNLayer folded = foldedLayer(2, 3);
  EXPECT_EQ(namesOf(compare(folded, folded)),
            (Names{"weights", "bias", "gamma (unused)", "beta (unused)", "gamma_inf (unused)",
                   "beta_inf (unused)"}));
  NNLayer plain = folded;
  for (Eigen::VectorXf* values : {&plain.gamma, &plain.beta, &plain.gamma_inf, &plain.beta_inf}) {
    values->resize(0);
  }
  EXPECT_EQ(differing(compare(folded, plain)),
            (Names{"gamma (unused)", "beta (unused)", "gamma_inf (unused)", "beta_inf (unused)"}));
  for (Eigen::VectorXf* values :
       {&folded.gamma, &folded.beta, &folded.gamma_inf, &folded.beta_inf}) {
    values->setZero();
  }
  EXPECT_EQ(namesOf(compare(folded, plain)), (Names{"weights", "bias"}));
  EXPECT_TRUE(compare(folded, plain).isSame());
}

TEST(NumberDiff, comparesTheMapsOfLayersOfTwoKinds) {
  const MultiLayerNNModel batchNorm = modelOf({batchNormLayer(4, 3, 5)});
  MultiLayerNNModel folded = batchNorm;
  ASSERT_EQ(folded.convBatchNorm(), 0);
  LayerDifference layer = mlnn::compareNumbers(batchNorm, folded).at(0);
  EXPECT_FALSE(layer.sameKind);
  EXPECT_FALSE(layer.isSame());
  EXPECT_EQ(namesOf(layer), (Names{"weights", "effective weights", "effective bias"}));
  EXPECT_EQ(differing(layer), Names{"weights"});
  EXPECT_EQ(differing(mlnn::compareNumbers(folded, batchNorm).at(0)), Names{"weights"});

  folded.layers[0]->weights(0, 0) += 1;
  folded.layers[0]->bias[2] += 1;
  layer = mlnn::compareNumbers(batchNorm, folded).at(0);
  EXPECT_EQ(differing(layer), (Names{"weights", "effective weights", "effective bias"}));
  EXPECT_EQ(layer.arrays[1].difference.differing(), 1u);
  EXPECT_EQ(layer.arrays[2].difference.differing(), 1u);
}

TEST(NumberDiff, countsLayersOfTwoKindsAsDifferentEvenWithEqualNumbers) {
  const LayerDifference layer =
      compare(NNLayer(2, 3, /*batchNorm=*/true), NNLayer(2, 3, /*batchNorm=*/false));
  EXPECT_EQ(differing(layer), Names{});
  EXPECT_FALSE(layer.isSame());
}

TEST(NumberDiff, comparesNoNumbersOfOtherShapes) {
  for (const NNLayer& other : {plainLayer(3, 3), plainLayer(2, 2)}) {
    const LayerDifference layer = compare(plainLayer(2, 3), other);
    EXPECT_FALSE(layer.sameShape);
    EXPECT_FALSE(layer.isSame());
    EXPECT_EQ(namesOf(layer), Names{});
  }
}

TEST(NumberDiff, leavesOutLayersThatOnlyOneModelHas) {
  const MultiLayerNNModel two = modelOf({plainLayer(2, 3), plainLayer(3, 1)});
  EXPECT_EQ(mlnn::compareNumbers(two, modelOf({plainLayer(2, 3)})).size(), 1u);
  EXPECT_EQ(mlnn::compareNumbers(MultiLayerNNModel(), two).size(), 0u);
}

}  // namespace
