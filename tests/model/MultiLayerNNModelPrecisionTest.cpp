#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <string>
#include <vector>

#include "model/MultiLayerNNModel.h"
#include "tests/support/CaptureStderr.h"

namespace {

// One plain layer of 1 output whose bias and weights are the given values, in this order.
MultiLayerNNModel modelWith(const std::vector<float>& values) {
  MultiLayerNNModel model;
  auto* layer = new NNLayer(static_cast<int>(values.size()) - 1, 1, false);
  layer->bias[0] = values[0];
  for (std::size_t i = 1; i < values.size(); ++i)
    layer->weights(0, Eigen::Index(i) - 1) = values[i];
  model.layers.push_back(layer);
  return model;
}

std::vector<float> valuesOf(const MultiLayerNNModel& model) {
  std::vector<float> values;
  for (const NNLayer* layer : model.layers) {
    values.insert(values.end(), layer->bias.data(), layer->bias.data() + layer->bias.size());
    values.insert(values.end(), layer->weights.data(),
                  layer->weights.data() + layer->weights.size());
  }
  return values;
}

std::string reduce(MultiLayerNNModel& model, int bits) {
  return mlnn::test::stderrOf([&model, bits] { model.retainPrecisionBits(bits); });
}

TEST(MultiLayerNNModelPrecision, printsTheRangeAndTheStepCount) {
  MultiLayerNNModel model = modelWith({0.25f, -0.5f, 0.0f});
  EXPECT_EQ(reduce(model, 4), "v_range -0.500000 - 0.250000 (0.750000), p_range 16\n");
}

TEST(MultiLayerNNModelPrecision, withEightBitsGoesDownToMultiplesOfTheStep) {
  MultiLayerNNModel model = modelWith({-1.0f, 1.0f, 0.003f, -0.9922f, 0.5f});
  EXPECT_EQ(reduce(model, 8), "v_range -1.000000 - 1.000000 (2.000000), p_range 256\n");
  EXPECT_EQ(valuesOf(model), (std::vector<float>{-1.0f, 1.0f, 0.0f, -1.0f, 0.5f}));
}

TEST(MultiLayerNNModelPrecision, withNoBitsLeavesTheTwoEnds) {
  MultiLayerNNModel model = modelWith({-1.0f, 3.0f, 2.9f, 0.0f});
  EXPECT_EQ(reduce(model, 0), "v_range -1.000000 - 3.000000 (4.000000), p_range 1\n");
  EXPECT_EQ(valuesOf(model), (std::vector<float>{-1.0f, 3.0f, -1.0f, -1.0f}));
}

TEST(MultiLayerNNModelPrecision, with31BitsHardlyChangesAnything) {
  const std::vector<float> values = {-1.0f, 3.0f, 0.7f, 0.0f};
  MultiLayerNNModel model = modelWith(values);
  EXPECT_EQ(reduce(model, 31), "v_range -1.000000 - 3.000000 (4.000000), p_range -2147483648\n");
  const std::vector<float> reduced = valuesOf(model);
  for (std::size_t i = 0; i < values.size(); ++i) {
    EXPECT_NEAR(reduced[i], values[i], 1.2e-7f) << "one rounding of value - origin, at " << i;
  }
}

TEST(MultiLayerNNModelPrecision, takesOneRangeOverAllLayers) {
  int sizes[] = {1, 1, 1};
  MultiLayerNNModel model(sizes, 3);
  model.layers[0]->bias << -4.0f;
  model.layers[0]->weights << 0.3f;
  model.layers[1]->bias << 0.3f;
  model.layers[1]->weights << 4.0f;
  EXPECT_EQ(reduce(model, 2), "v_range -4.000000 - 4.000000 (8.000000), p_range 4\n");
  EXPECT_EQ(valuesOf(model), (std::vector<float>{-4.0f, 0.0f, 0.0f, 4.0f}));
}

TEST(MultiLayerNNModelPrecision, equalParametersStay) {
  for (const float value : {0.0f, -2.5f, 7.0f}) {
    MultiLayerNNModel model = modelWith({value, value, value});
    reduce(model, 5);
    EXPECT_EQ(valuesOf(model), (std::vector<float>{value, value, value}));
  }
}

TEST(MultiLayerNNModelPrecision, secondPassChangesNothingMore) {
  MultiLayerNNModel model = modelWith({-1.0f, 1.0f, 0.3f, 0.77f, -0.123f});
  reduce(model, 6);
  const std::vector<float> once = valuesOf(model);
  reduce(model, 6);
  EXPECT_EQ(valuesOf(model), once);
}

TEST(MultiLayerNNModelPrecision, leavesEverythingElseAlone) {
  MultiLayerNNModel model;
  model.layers.push_back(new NNLayer(1, 1, true));
  NNLayer& layer = *model.layers[0];
  layer.bias << 0.0f;
  layer.weights << 1.0f;
  layer.gamma << 0.123f;
  layer.beta << 0.234f;
  layer.gamma_inf << 0.345f;
  layer.beta_inf << 0.456f;
  layer.actFn = ActFn::relu;
  model.notes.lines = {"note"};
  reduce(model, 1);
  EXPECT_EQ(layer.gamma[0], 0.123f);
  EXPECT_EQ(layer.beta[0], 0.234f);
  EXPECT_EQ(layer.gamma_inf[0], 0.345f);
  EXPECT_EQ(layer.beta_inf[0], 0.456f);
  EXPECT_EQ(layer.actFn, ActFn::relu);
  EXPECT_TRUE(layer.isBatchNorm);
  EXPECT_EQ(model.notes.lines, std::vector<std::string>{"note"});
}

TEST(MultiLayerNNModelPrecision, withoutLayersPrintsAnEmptyRange) {
  MultiLayerNNModel model;
  EXPECT_EQ(reduce(model, 3), "v_range 0.000000 - 0.000000 (0.000000), p_range 8\n");
  EXPECT_TRUE(model.layers.empty());
}

TEST(MultiLayerNNModelPrecision, withoutParametersPrintsAnEmptyRange) {
  MultiLayerNNModel model;
  model.layers.push_back(new NNLayer(5, 0, false));
  model.layers.push_back(nullptr);
  EXPECT_EQ(reduce(model, 3), "v_range 0.000000 - 0.000000 (0.000000), p_range 8\n");
}

TEST(MultiLayerNNModelPrecision, startsFromTheFirstParameterThatThereIs) {
  MultiLayerNNModel model = modelWith({2.0f, 3.0f});
  model.layers.insert(model.layers.begin(), new NNLayer(0, 0, false));
  EXPECT_EQ(reduce(model, 1), "v_range 2.000000 - 3.000000 (1.000000), p_range 2\n");
}

TEST(MultiLayerNNModelPrecision, firstParameterNaNMakesAllNaN) {
  MultiLayerNNModel model = modelWith({std::numeric_limits<float>::quiet_NaN(), 1.0f});
  EXPECT_EQ(reduce(model, 4), "v_range nan - nan (nan), p_range 16\n");
  for (const float value : valuesOf(model)) EXPECT_TRUE(std::isnan(value));
}

TEST(MultiLayerNNModelPrecision, refusesBitsOutsideTheRange) {
  for (const int bits : {-1, 32, std::numeric_limits<int>::min()}) {
    MultiLayerNNModel model = modelWith({0.1f, 0.7f, 0.33f});
    EXPECT_EQ(reduce(model, bits),
              "ERROR: MultiLayerNNModel::retainPrecisionBits: bits must be 0 to 31, got " +
                  std::to_string(bits) + "\n");
    EXPECT_EQ(valuesOf(model), (std::vector<float>{0.1f, 0.7f, 0.33f}));
  }
}

}  // namespace
