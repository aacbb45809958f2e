#include <gtest/gtest.h>

#include <map>
#include <string>

#include "analysis/TraceComparison.h"
#include "tests/support/TestModels.h"

namespace {

using mlnn::StageComparison;
using mlnn::Trace;
using mlnn::test::someValues;
using Values = std::map<std::string, Eigen::MatrixXf>;

Trace traceOf(const std::vector<std::string>& stages, const Values& values) {
  return {stages, [&values](const std::string& stage) { return values.at(stage); }};
}

TEST(TraceComparison, findsWhereTheResultsPart) {
  const Values a = {{"inputs", someValues(4, 3, 1)}, {"outputs", someValues(2, 3, 2)}};
  Values b = a;
  b["outputs"](1, 2) += 0.5f;
  const auto stages = mlnn::compareTraces(traceOf({"inputs", "outputs"}, a),
                                          traceOf({"inputs", "outputs"}, b), false);
  ASSERT_EQ(stages.size(), 2u);
  EXPECT_FALSE(stages[0].isBeyond(0));
  EXPECT_TRUE(stages[1].isBeyond(0.4));
  EXPECT_FALSE(stages[1].isBeyond(0.6));
  EXPECT_EQ(stages[1].difference.placeOfLargest().row, 1);
  EXPECT_EQ(stages[1].difference.placeOfLargest().col, 2);
  EXPECT_EQ(stages[1].b.valueAtLargest, b["outputs"](1, 2));
}

TEST(TraceComparison, tellsStagesThatOnlyOneHas) {
  const Values values = {{"inputs", someValues(4, 3, 1)}, {"layer-2", someValues(2, 3, 2)}};
  const Trace a = traceOf({"inputs"}, values);
  const Trace b = traceOf({"inputs", "layer-2"}, values);
  const auto all = mlnn::compareTraces(a, b, false);
  ASSERT_EQ(all.size(), 2u);
  EXPECT_FALSE(all[1].isInBoth());
  EXPECT_TRUE(all[1].isBeyond(1e9));
  EXPECT_EQ(mlnn::compareTraces(a, b, true).size(), 1u);
}

TEST(TraceComparison, tellsOtherShapes) {
  const Values a = {{"inputs", someValues(4, 3, 1)}};
  const Values b = {{"inputs", someValues(4, 2, 1)}};
  const auto stages = mlnn::compareTraces(traceOf({"inputs"}, a), traceOf({"inputs"}, b), false);
  EXPECT_FALSE(stages[0].sameShape());
  EXPECT_TRUE(stages[0].isBeyond(1e9));
}

TEST(TraceComparison, ofNoFramesFindsNothing) {
  const Values none = {{"inputs", Eigen::MatrixXf(4, 0)}};
  const auto stages =
      mlnn::compareTraces(traceOf({"inputs"}, none), traceOf({"inputs"}, none), false);
  EXPECT_FALSE(stages[0].isBeyond(0));
}

}  // namespace
