#include <gtest/gtest.h>

#include "inference/ModelLayers.h"
#include "tests/support/CaptureStderr.h"
#include "tests/support/TestModels.h"

namespace {

using mlnn::canBeEvaluated;
using mlnn::framesFit;
using mlnn::InputFrames;
using mlnn::ModelLayers;
using mlnn::OutputFrames;
using mlnn::test::batchNormLayer;
using mlnn::test::modelOf;
using mlnn::test::plainLayer;
using mlnn::test::stderrOf;

TEST(ModelLayers, areEvaluatedWhereEachFits) {
  const MultiLayerNNModel model = modelOf({batchNormLayer(4, 3), plainLayer(3, 2)});
  EXPECT_EQ(stderrOf([&] { EXPECT_TRUE(canBeEvaluated(model, "op")); }), "");
  EXPECT_EQ(stderrOf([] { EXPECT_FALSE(canBeEvaluated(nullptr, "op")); }),
            "ERROR: op: model has no layers\n");
  EXPECT_EQ(stderrOf([] { EXPECT_FALSE(canBeEvaluated(MultiLayerNNModel(), "op")); }),
            "ERROR: op: model has no layers\n");
}

TEST(ModelLayers, areRefusedWhereOneDoesNotFit) {
  const MultiLayerNNModel good = modelOf({batchNormLayer(4, 3), plainLayer(3, 2)});
  std::vector<MultiLayerNNModel> models(5, good);
  models[0].layers[1]->weights.resize(2, 4);
  models[1].layers[1]->bias.resize(1);
  models[2].layers[1]->actFn = static_cast<ActFn::ActFn>(ActFn::kCount);
  models[3].layers[1]->gamma_inf.resize(7);
  models[4].layers[1]->actFn = static_cast<ActFn::ActFn>(-1);
  for (const MultiLayerNNModel& model : models) {
    EXPECT_EQ(stderrOf([&] { EXPECT_FALSE(canBeEvaluated(model, "op")); }),
              "ERROR: op: layer 2 does not fit the model\n");
  }
}

TEST(ModelLayers, showTheArraysThatAPassReads) {
  MultiLayerNNModel model = modelOf({batchNormLayer(4, 3), plainLayer(3, 2)});
  model.layers[1]->actFn = ActFn::relu;
  model.useSoftmax = false;
  const ModelLayers layers(model);
  EXPECT_EQ(layers.count(), 2u);
  EXPECT_FALSE(layers.endsInSoftmax());
  const auto first = layers.layer(0);
  EXPECT_EQ(first.weights, model.layers[0]->weights.data());
  EXPECT_EQ(first.rows, 3u);
  EXPECT_EQ(first.cols, 4u);
  EXPECT_EQ(first.scale, model.layers[0]->gamma_inf.data());
  EXPECT_EQ(first.shift, model.layers[0]->beta_inf.data());
  const auto second = layers.layer(1);
  EXPECT_EQ(second.scale, nullptr);
  EXPECT_EQ(second.shift, model.layers[1]->bias.data());
  EXPECT_EQ(second.actFn, ActFn::relu);
}

std::string refusalOf(const InputFrames& inputs, const OutputFrames& outputs) {
  bool fits = true;
  const std::string said = stderrOf([&] { fits = framesFit(inputs, outputs, 4, 2, "op"); });
  EXPECT_EQ(fits, said.empty());
  return said;
}

TEST(ModelLayers, takeFramesOfTheirWidths) {
  float values[16] = {};
  const InputFrames inputs(values, 4, 3);
  EXPECT_EQ(refusalOf(inputs, {values, 2, 3}), "");
  EXPECT_EQ(refusalOf({values, 5, 3}, {values, 2, 3}), "ERROR: op: expected 4 inputs but got 5\n");
  EXPECT_EQ(refusalOf(inputs, {values, 3, 3}),
            "ERROR: op: expected room for 2 outputs but got room for 3\n");
  EXPECT_EQ(refusalOf(inputs, {values, 2, 2}),
            "ERROR: op: got 3 frames of inputs but room for 2\n");
  EXPECT_EQ(refusalOf({values, 4, -1}, {values, 2, -1}),
            "ERROR: op: got -1 frames of inputs but room for -1\n");
  EXPECT_EQ(refusalOf(inputs, {values, 2, 3, 1}),
            "ERROR: op: frames of 2 outputs cannot lie 1 apart\n");
  EXPECT_EQ(refusalOf({nullptr, 4, 3}, {values, 2, 3}),
            "ERROR: op: the inputs are a null pointer\n");
  EXPECT_EQ(refusalOf(inputs, {nullptr, 2, 3}), "ERROR: op: the outputs are a null pointer\n");
  EXPECT_EQ(refusalOf({nullptr, 4, 0}, {nullptr, 2, 0}), "");
}

}  // namespace
