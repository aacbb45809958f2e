#include <gtest/gtest.h>

#include <limits>

#include "model/FormatLoss.h"
#include "tests/support/TestModels.h"

namespace {

using Lines = std::vector<std::string>;
using mlnn::lossesBetween;
using mlnn::sameValues;
using mlnn::test::fullModel;

constexpr float kNaN = std::numeric_limits<float>::quiet_NaN();

Eigen::VectorXf vectorOf(const std::vector<float>& values) {
  return Eigen::Map<const Eigen::VectorXf>(values.data(), static_cast<Eigen::Index>(values.size()));
}

TEST(FormatLoss, equalModelsLoseNothing) {
  MultiLayerNNModel present = fullModel();
  present.props = fullModel().props;
  EXPECT_EQ(lossesBetween(fullModel(), present), Lines{});
}

TEST(FormatLoss, whatThePresentModelHasBeyondIsNoLoss) {
  MultiLayerNNModel present = fullModel();
  present.props["more"] = "1";
  present.notes.lines.insert(present.notes.lines.begin(), "more");
  EXPECT_EQ(lossesBetween(fullModel(), present), Lines{});
}

TEST(FormatLoss, namesEverything) {
  MultiLayerNNModel wanted = fullModel();
  wanted.notes.lines = {"one", "two", "three"};
  wanted.props = {{"a", "1"}, {"b", "2"}, {"c\n", "3"}};
  wanted.loss = {1, 2};
  wanted.accuracy = {3};
  wanted.layers[1]->actFn = ActFn::relu;
  wanted.featureDesc = DbnFeatureDescription(DbnFeatureDescription::MelDeltas);
  wanted.featureDesc.numBands = 2;
  wanted.featureDesc.reserved = 9;
  MultiLayerNNModel present = wanted;
  present.useSoftmax = !wanted.useSoftmax;
  present.notes.lines = {"two"};
  present.props = {{"a", "1"}, {"b", "other"}};
  present.loss = {1};
  present.accuracy.clear();
  present.layers[1]->actFn = ActFn::linear;
  present.featureDesc.numBands = 3;
  present.featureDesc.reserved = 0;
  present.deltasNorm.minvals[5] += 1;
  EXPECT_EQ(lossesBetween(wanted, present),
            (Lines{"that the softmax is off", "2 note lines", "2 properties (b, c\\n)",
                   "the loss curve (2 values)", "the accuracy curve (1 value)",
                   "the feature description " + mlnn::textOf(wanted.featureDesc) +
                       ", which becomes " + mlnn::textOf(present.featureDesc),
                   "the reserved byte of the feature description (9)", "the normalisation",
                   "the activation of batch-norm layer 2 (relu)"}));
}

TEST(FormatLoss, notesKeepTheirOrder) {
  MultiLayerNNModel wanted = fullModel();
  wanted.notes.lines = {"one", "two", "one"};
  MultiLayerNNModel present = wanted;
  present.props = wanted.props;
  present.notes.lines = {"one", "one", "two"};
  EXPECT_EQ(lossesBetween(wanted, present), Lines{"1 note line"});
}

TEST(FormatLoss, noNormalisationIsOneThatChangesNothing) {
  MultiLayerNNModel wanted = mlnn::test::modelOf({mlnn::test::plainLayer(2, 1)});
  MultiLayerNNModel present = wanted;
  present.deltasNorm.allocIfNeeded();
  EXPECT_EQ(lossesBetween(wanted, present), Lines{});
}

TEST(FormatLoss, valuesAreTheSameWithTheirSignsAndAnyNaN) {
  EXPECT_TRUE(sameValues(vectorOf({}), vectorOf({})));
  EXPECT_TRUE(sameValues(vectorOf({1, kNaN}), vectorOf({1, -kNaN})));
  EXPECT_FALSE(sameValues(vectorOf({0.0f}), vectorOf({-0.0f})));
  EXPECT_FALSE(sameValues(vectorOf({kNaN}), vectorOf({1})));
  EXPECT_FALSE(sameValues(vectorOf({1}), vectorOf({1, 2})));
}

}  // namespace
