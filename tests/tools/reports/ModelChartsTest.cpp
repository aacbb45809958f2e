#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "tests/support/TestModels.h"
#include "tools/reports/ModelCharts.h"

namespace {

using mlnn::Chart;

TEST(ModelCharts, areCurvesAndTheWeightsOfEachLayer) {
  MultiLayerNNModel model = mlnn::test::modelOf(
      {mlnn::test::plainLayer(4, 3), NNLayer(3, 0, false), mlnn::test::batchNormLayer(3, 2)});
  model.accuracy = {0.5f, 1};
  const std::vector<Chart> charts = mlnn::chartsOf(model, 7);
  ASSERT_EQ(charts.size(), 3u);
  EXPECT_EQ(charts[0].title, "accuracy");
  EXPECT_EQ(charts[0].values, std::vector<double>({0.5, 1}));
  EXPECT_EQ(charts[0].remark, "2 values, first 0.5, last 1");
  EXPECT_EQ(charts[0].xLow, 1);
  EXPECT_EQ(charts[0].xHigh, 2);
  EXPECT_EQ(charts[1].title, "weights of layer 1");
  EXPECT_EQ(charts[1].values.size(), 7u);
  EXPECT_EQ(charts[1].remark, "12 weights of plain layer, 4 to 3");
  EXPECT_EQ(charts[2].title, "weights of layer 3");
  EXPECT_EQ(charts[2].remark, "6 weights of batch-norm layer, 3 to 2");
  EXPECT_TRUE(mlnn::curvesOf(MultiLayerNNModel()).empty());
}

TEST(ModelCharts, countWhatTheyDoNotDraw) {
  MultiLayerNNModel model = mlnn::test::modelOf({mlnn::test::plainLayer(2, 2)});
  model.loss = {1, std::numeric_limits<float>::infinity(), std::nanf("")};
  model.layers[0]->weights << 1, 2, std::nanf(""), 4;
  const std::vector<Chart> charts = mlnn::chartsOf(model, 2);
  EXPECT_EQ(charts[0].remark, "3 values, first 1, last nan, 2 values not finite, not drawn");
  EXPECT_TRUE(std::isnan(charts[0].values[1]));
  EXPECT_EQ(charts[1].remark, "4 weights of plain layer, 2 to 2, 1 value not finite, not drawn");
  EXPECT_EQ(charts[1].values, std::vector<double>({2, 1}));
}

}  // namespace
