#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <vector>

#include "analysis/UnitActivity.h"
#include "tests/support/TestModels.h"

namespace {

using mlnn::LayerActivity;
using mlnn::LayerResult;
using mlnn::UnitActivity;
using Units = std::vector<Eigen::Index>;

MultiLayerNNModel modelWith(ActFn::ActFn actFn) {
  NNLayer layer = mlnn::test::plainLayer(2, 3);
  layer.actFn = actFn;
  return mlnn::test::modelOf({layer});
}

std::vector<LayerResult> results(std::initializer_list<std::initializer_list<float>> frames) {
  LayerResult result;
  result.activated.resize(static_cast<Eigen::Index>(frames.begin()->size()),
                          static_cast<Eigen::Index>(frames.size()));
  Eigen::Index f = 0;
  for (const auto& frame : frames) {
    Eigen::Index unit = 0;
    for (const float value : frame) result.activated(unit++, f) = value;
    ++f;
  }
  return {result};
}

TEST(UnitActivityTest, findsUnitsThatAlwaysGiveTheSame) {
  const MultiLayerNNModel model = modelWith(ActFn::relu);
  UnitActivity activity(model);
  activity.add(results({{0, 1, 2}, {0, 3, 2}}));
  activity.add(results({{0, 2, 2}}));
  EXPECT_EQ(activity.frames(), 3u);
  ASSERT_EQ(activity.layers().size(), 1u);
  const LayerActivity layer = activity.layers().front();
  EXPECT_EQ(layer.units, 3u);
  EXPECT_EQ(layer.dead, (Units{0, 2}));
  EXPECT_EQ(layer.saturated, Units());
  EXPECT_EQ(layer.smallest, 0);
  EXPECT_EQ(layer.largest, 3);
}

TEST(UnitActivityTest, findsUnitsThatStayAtOneEnd) {
  struct Case {
    ActFn::ActFn actFn;
    float low;
    float high;
  };
  for (const Case& ends : {Case{ActFn::sigmoid, 0, 1}, Case{ActFn::tanh, -1, 1}}) {
    const MultiLayerNNModel model = modelWith(ends.actFn);
    UnitActivity activity(model);
    activity.add(results({{ends.low + 0.001f, ends.high - 0.001f, ends.low},
                          {ends.low + 0.002f, ends.high - 0.002f, ends.high}}));
    EXPECT_EQ(activity.layers().front().saturated, (Units{0, 1}));
    EXPECT_EQ(activity.layers().front().dead, Units());
  }
}

TEST(UnitActivityTest, knowsNoEndsOfOtherActivations) {
  const MultiLayerNNModel model = modelWith(ActFn::linear);
  UnitActivity activity(model);
  activity.add(results({{0.999f, 0, 1}, {1, 1, 0.999f}}));
  EXPECT_EQ(activity.layers().front().saturated, Units());
}

TEST(UnitActivityTest, tellsNothingOfASingleFrame) {
  const MultiLayerNNModel model = modelWith(ActFn::relu);
  UnitActivity activity(model);
  activity.add(results({{0, 1, 2}}));
  EXPECT_TRUE(activity.layers().empty());
}

TEST(UnitActivityTest, takesWhatIsNotANumberForNeither) {
  const MultiLayerNNModel model = modelWith(ActFn::sigmoid);
  UnitActivity activity(model);
  activity.add(results({{std::numeric_limits<float>::quiet_NaN(), 0, 0}, {1, 1, 1}}));
  const LayerActivity layer = activity.layers().front();
  EXPECT_EQ(layer.dead, Units());
  EXPECT_EQ(layer.saturated, Units());
  EXPECT_TRUE(std::isnan(layer.smallest));
  EXPECT_TRUE(std::isnan(layer.largest));
}

}  // namespace
