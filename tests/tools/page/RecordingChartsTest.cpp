#include <gtest/gtest.h>

#include "tests/support/TestModels.h"
#include "tools/page/RecordingCharts.h"

namespace {

using mlnn::Chart;

TEST(RecordingCharts, areMapsOfPosteriorsAndATableOfClasses) {
  MultiLayerNNModel model = mlnn::test::modelOf({mlnn::test::plainLayer(2, 2)});
  model.layers[0]->weights.setIdentity();
  model.layers[0]->bias.setZero();
  model.layers[0]->actFn = ActFn::linear;
  model.useSoftmax = true;
  model.props = {{"labels", "left,right"}};
  std::string whyNot;
  const auto inputs = mlnn::RecordingInputs::forFrames(model, 2, true, "F", whyNot);
  mlnn::RecordingFindings found(model);
  EXPECT_TRUE(mlnn::chartsOf(found).empty());
  Eigen::MatrixXf frames(2, 2);
  frames << 3, 3, 0, 0;
  ASSERT_TRUE(found.add("folder/one.npy", frames, inputs.value(), 0));
  ASSERT_TRUE(found.add("two.npy", frames, inputs.value(), 1));
  const std::vector<Chart> charts = mlnn::chartsOf(found);
  ASSERT_EQ(charts.size(), 3u);
  EXPECT_EQ(charts[0].kind, Chart::Kind::kMap);
  EXPECT_EQ(charts[0].title, "one.npy");
  EXPECT_EQ(charts[0].remark, "decided left, is left");
  EXPECT_EQ(charts[0].columns, 2u);
  EXPECT_EQ(charts[0].values.size(), 4u);
  EXPECT_EQ(charts[1].remark, "decided left, is right");
  EXPECT_EQ(charts[2].title, "confusion");
  EXPECT_EQ(charts[2].remark, "1 of 2 right");
  EXPECT_EQ(charts[2].rowNames, std::vector<std::string>({"left", "right"}));
  EXPECT_EQ(charts[2].columnNames, std::vector<std::string>({"left", "right"}));
  EXPECT_EQ(charts[2].values, std::vector<double>({1, 0, 1, 0}));
}

}  // namespace
