#include <gtest/gtest.h>

#include <limits>

#include "analysis/ModelCopy.h"
#include "tests/support/TestModels.h"

namespace {

using mlnn::copyOf;
using mlnn::test::fullModel;
using mlnn::test::sameModel;

TEST(ModelCopy, hasEverything) {
  MultiLayerNNModel model = fullModel();
  model.loss = {1, std::numeric_limits<float>::infinity()};
  model.accuracy = {std::numeric_limits<float>::max()};
  const MultiLayerNNModel copy = copyOf(model, {});
  EXPECT_TRUE(sameModel(copy, model));
  EXPECT_NE(copy.layers[0], model.layers[0]);
  EXPECT_TRUE(sameModel(copyOf(MultiLayerNNModel(), {}), MultiLayerNNModel()));
}

TEST(ModelCopy, isStoppedBetweenLayers) {
  const MultiLayerNNModel model = fullModel();
  for (int calls = 1; calls <= 4; ++calls) {
    int left = calls;
    const auto watch = [&left](std::size_t) {
      if (--left == 0) throw 1;
    };
    EXPECT_THROW(copyOf(model, watch), int) << calls;
  }
  EXPECT_TRUE(sameModel(model, fullModel()));
}

}  // namespace
