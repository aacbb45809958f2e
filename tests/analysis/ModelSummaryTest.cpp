#include <gtest/gtest.h>

#include <string>

#include "analysis/ModelSummary.h"
#include "tests/support/TestModels.h"

namespace {

using mlnn::LayerSummary;
using mlnn::ModelSummary;
using mlnn::summaryOf;
using mlnn::test::batchNormLayer;
using mlnn::test::foldedLayer;
using mlnn::test::modelOf;
using mlnn::test::plainLayer;

TEST(ModelSummary, tellsOfEachLayer) {
  MultiLayerNNModel model = modelOf({plainLayer(5, 4), batchNormLayer(4, 3)});
  model.layers[0]->actFn = ActFn::relu;
  const ModelSummary summary = summaryOf(model);
  ASSERT_EQ(summary.layers.size(), 2u);
  const LayerSummary& plain = summary.layers[0];
  EXPECT_FALSE(plain.isBatchNorm);
  EXPECT_EQ(plain.inputs, 5);
  EXPECT_EQ(plain.outputs, 4);
  EXPECT_EQ(plain.actFn, ActFn::relu);
  EXPECT_EQ(plain.parameters, 24u);
  EXPECT_EQ(std::string(plain.imageWeights.form), "floats");
  EXPECT_TRUE(summary.layers[1].isBatchNorm);
  EXPECT_EQ(summary.layers[1].parameters, 24u);
  EXPECT_EQ(summary.parameters, 48u);
}

// What a layer does not use takes memory, but is no parameter.
TEST(ModelSummary, countsUnusedArraysAsMemoryAlone) {
  const ModelSummary plain = summaryOf(modelOf({plainLayer(5, 4)}));
  const ModelSummary folded = summaryOf(modelOf({foldedLayer(5, 4)}));
  EXPECT_EQ(folded.parameters, plain.parameters);
  EXPECT_EQ(folded.memoryBytes, plain.memoryBytes + 16 * sizeof(float));
}

TEST(ModelSummary, countsWhatIsAroundTheLayers) {
  MultiLayerNNModel model;
  EXPECT_EQ(summaryOf(model).memoryBytes, sizeof(MultiLayerNNModel));
  model.loss = {1, 2};
  model.notes.lines = {"abc"};
  model.props["k"] = "val";
  EXPECT_EQ(summaryOf(model).memoryBytes,
            sizeof(MultiLayerNNModel) + 2 * sizeof(float) + 3 * sizeof(std::string) + 3 + 4);
  EXPECT_EQ(summaryOf(model).parameters, 0u);
}

}  // namespace
