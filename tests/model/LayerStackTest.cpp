#include <gtest/gtest.h>

#include <vector>

#include "model/LayerStack.h"

namespace {

// Frees what it holds.
struct Stack {
  ~Stack() { mlnn::resizeStack(layers, 0); }
  std::vector<NNLayer*> layers;
};

TEST(LayerStack, growsByMissingLayersAndShrinksFromTheEnd) {
  Stack stack;
  mlnn::resizeStack(stack.layers, 2);
  EXPECT_EQ(stack.layers, std::vector<NNLayer*>(2, nullptr));
  mlnn::fillMissingLayers(stack.layers);
  NNLayer* const first = stack.layers[0];
  ASSERT_NE(first, nullptr);
  ASSERT_NE(stack.layers[1], nullptr);
  mlnn::resizeStack(stack.layers, 1);
  EXPECT_EQ(stack.layers, std::vector<NNLayer*>{first});
}

TEST(LayerStack, fillingLeavesLayersThatAreThere) {
  Stack stack;
  stack.layers = {nullptr, new NNLayer(), nullptr};
  NNLayer* const there = stack.layers[1];
  mlnn::fillMissingLayers(stack.layers);
  EXPECT_EQ(stack.layers[1], there);
  EXPECT_EQ(stack.layers[0]->weights.size(), 0);
  EXPECT_EQ(stack.layers[2]->weights.size(), 0);
}

TEST(LayerStack, aMissingLayerIsAnEmptyOne) {
  const NNLayer layer;
  EXPECT_EQ(&mlnn::layerOrEmpty(&layer), &layer);
  EXPECT_EQ(mlnn::layerOrEmpty(nullptr).weights.size(), 0);
}

TEST(LayerStack, theRangeIsThatOfWeightsAndBiases) {
  Stack stack;
  EXPECT_FALSE(mlnn::parameterRange(stack.layers));
  stack.layers = {nullptr, new NNLayer(), new NNLayer()};
  EXPECT_FALSE(mlnn::parameterRange(stack.layers));
  stack.layers[1]->weights = Eigen::MatrixXf::Constant(2, 2, -1.5f);
  stack.layers[2]->bias = Eigen::VectorXf::Constant(1, 4.0f);
  stack.layers[2]->gamma_inf = Eigen::VectorXf::Constant(1, 100.0f);  // is no parameter here
  const auto range = mlnn::parameterRange(stack.layers);
  ASSERT_TRUE(range);
  EXPECT_EQ(range->smallest, -1.5f);
  EXPECT_EQ(range->largest, 4.0f);
}

}  // namespace
