#include <gtest/gtest.h>

#include <string>

#include "layers/LayerArrays.h"

namespace {

std::string names(const NNLayer& layer, bool onlyUsed) {
  std::string names;
  const auto add = [&names](const char* name, const auto&) { names += std::string(name) + " "; };
  if (onlyUsed) {
    mlnn::forEachUsedArray(layer, add);
  } else {
    mlnn::forEachArray(layer, add);
  }
  return names;
}

TEST(LayerArrays, areAllInTheOrderOfTheRecord) {
  EXPECT_EQ(names(NNLayer(), false), "weights bias gamma beta gamma_inf beta_inf ");
}

TEST(LayerArrays, areUsedByTheKindOfLayer) {
  EXPECT_EQ(names(NNLayer(1, 1, false), true), "weights bias ");
  EXPECT_EQ(names(NNLayer(1, 1, true), true), "weights gamma beta gamma_inf beta_inf ");
}

TEST(LayerArrays, areThoseOfTheirName) {
  NNLayer layer(1, 1, true);
  EXPECT_EQ(&mlnn::layerVector("bias")->of(layer), &layer.bias);
  EXPECT_EQ(&mlnn::layerVector("gamma")->of(layer), &layer.gamma);
  EXPECT_EQ(&mlnn::layerVector("beta")->of(layer), &layer.beta);
  EXPECT_EQ(&mlnn::layerVector("gamma_inf")->of(layer), &layer.gamma_inf);
  EXPECT_EQ(&mlnn::layerVector("beta_inf")->of(layer), &layer.beta_inf);
  EXPECT_EQ(mlnn::layerVector("weights"), nullptr);
  EXPECT_EQ(mlnn::layerVector("gamma_"), nullptr);
}

}  // namespace
