// Every analysis that takes a while is stopped by what its watch throws.
#include <gtest/gtest.h>

#include <functional>
#include <sstream>

#include "analysis/CellMap.h"
#include "analysis/Difference.h"
#include "analysis/FrameTimer.h"
#include "analysis/Histogram.h"
#include "analysis/ModelAverage.h"
#include "analysis/ModelBudget.h"
#include "analysis/ModelCopy.h"
#include "analysis/ModelDigest.h"
#include "analysis/ModelSummary.h"
#include "analysis/ModelSuspicions.h"
#include "analysis/NumberDiff.h"
#include "analysis/QuantizationDiff.h"
#include "analysis/ValueStatistics.h"
#include "analysis/WeightForms.h"
#include "analysis/diagnosis/Diagnosis.h"
#include "features/Watch.h"
#include "model/FormatFit.h"
#include "model/RowQuantization.h"
#include "tests/support/TestModels.h"

namespace {

using mlnn::Watch;

struct Stopped {};

// Whether the work ends by what the watch throws when it is called for the `number`th time.
bool isStopped(const std::function<void(const Watch&)>& work, int number = 1) {
  try {
    work([&number](std::size_t) {
      if (--number == 0) throw Stopped();
    });
  } catch (const Stopped&) {
    return true;
  }
  return false;
}

// Large enough for a text of more than a megabyte.
MultiLayerNNModel largeModel() {
  return mlnn::test::modelOf({mlnn::test::plainLayer(400, 500), mlnn::test::plainLayer(500, 10)});
}

std::string textOf(const MultiLayerNNModel& model) {
  std::ostringstream out;
  mlnn::writeText(model, 9, out);
  return out.str();
}

TEST(Watch, stopsEveryAnalysis) {
  MultiLayerNNModel model = largeModel();
  mlnn::ModelFile file;
  file.model = model;
  const std::string text = textOf(model);
  std::string whyNot;
  EXPECT_TRUE(isStopped([&](const Watch& watch) { mlnn::diagnose(text, watch); }, 3));
  EXPECT_TRUE(isStopped([&](const Watch& watch) { mlnn::suspiciousLines(text, watch); }, 3));
  EXPECT_TRUE(isStopped([&](const Watch& watch) { mlnn::suspicionsOf(file, watch); }, 3));
  EXPECT_TRUE(isStopped([&](const Watch& watch) { mlnn::digestOf(file, watch); }, 2));
  EXPECT_TRUE(isStopped([&](const Watch& watch) { mlnn::compareNumbers(model, model, watch); }, 3));
  EXPECT_TRUE(isStopped([&](const Watch& watch) { mlnn::fileSizesOf(model, watch); }, 2));
  EXPECT_TRUE(isStopped([&](const Watch& watch) { mlnn::budgetOf(model, watch); }, 4));
  EXPECT_TRUE(isStopped([&](const Watch& watch) { mlnn::summaryOf(model, watch); }, 2));
  EXPECT_TRUE(isStopped([&](const Watch& watch) { mlnn::weightForms(model, watch); }, 2));
  EXPECT_TRUE(isStopped([&](const Watch& watch) { mlnn::quantizedText(model, watch); }, 2));
  EXPECT_TRUE(isStopped([&](const Watch& watch) { mlnn::timeFrames(model, 0.01, whyNot, watch); }));
  EXPECT_TRUE(isStopped([&](const Watch& watch) {
    MultiLayerNNModel copy = model;
    mlnn::fitToFormat(copy, mlnn::ModelFormat::kText, 4, whyNot, watch);
  }));
  EXPECT_TRUE(
      isStopped([&](const Watch& watch) { mlnn::ModelAverage().add(largeModel(), 1, watch); }, 2));
  EXPECT_TRUE(isStopped([&](const Watch& watch) {
    const Eigen::MatrixXf& weights = model.layers[0]->weights;
    mlnn::histogramOf(weights.data(), static_cast<std::size_t>(weights.size()), 8, watch);
  }));
}

int callsOf(const std::function<void(const Watch&)>& work) {
  int calls = 0;
  work([&calls](std::size_t) { ++calls; });
  return calls;
}

// A layer of many outputs is looked at a few rows or columns at a time.
TEST(Watch, isCalledWithinLayers) {
  const MultiLayerNNModel model = mlnn::test::modelOf({mlnn::test::plainLayer(3, 6400)});
  MultiLayerNNModel codes = model;
  ASSERT_EQ(mlnn::quantizeRows(codes, {}), 0);
  EXPECT_GE(callsOf([&](const Watch& watch) { mlnn::codedSizeOf(model, 8, watch); }), 100);
  EXPECT_GE(callsOf([&](const Watch& watch) { mlnn::integerSizeOf(codes, watch); }), 200);
  EXPECT_GE(callsOf([&](const Watch& watch) { mlnn::summaryOf(codes, watch); }), 100);
  EXPECT_GE(callsOf([&](const Watch& watch) { mlnn::fileSizesOf(codes, watch); }), 100);
  EXPECT_GE(callsOf([&](const Watch& watch) { mlnn::suspicionsOf(codes, watch); }), 500);
  EXPECT_GE(callsOf([&](const Watch& watch) { mlnn::findQuantization(model, codes, watch); }), 400);
}

// Plain floats are copied in pieces.
TEST(Watch, isCalledWhileWeightsAreCopied) {
  const MultiLayerNNModel model = mlnn::test::modelOf({mlnn::test::plainLayer(2000, 1100)});
  EXPECT_EQ(callsOf([&](const Watch& watch) { mlnn::integerSizeOf(model, watch); }), 3);
}

TEST(Watch, stopsWhatMakesAPass) {
  const MultiLayerNNModel model = largeModel();
  MultiLayerNNModel codes = model;
  ASSERT_EQ(mlnn::quantizeRows(codes, {}), 0);
  EXPECT_TRUE(isStopped([&](const Watch& watch) { mlnn::codedSizeOf(model, 8, watch); }, 3));
  EXPECT_TRUE(isStopped([&](const Watch& watch) { mlnn::integerSizeOf(model, watch); }));
  EXPECT_TRUE(isStopped([&](const Watch& watch) { mlnn::integerSizeOf(codes, watch); }, 12));
}

// Those before it have their new weights, as its header says.
TEST(Watch, stopsQuantizingBetweenLayersOrWithin) {
  const MultiLayerNNModel model = largeModel();
  MultiLayerNNModel stopped = model;
  MultiLayerNNModel whole = model;
  ASSERT_EQ(mlnn::quantizeRows(whole, {}), 0);
  const int callsOfTheFirst = (500 + 15) / 16 + 1;
  EXPECT_TRUE(
      isStopped([&](const Watch& watch) { mlnn::quantizeRows(stopped, {}, nullptr, watch); },
                callsOfTheFirst + 1));
  EXPECT_EQ(stopped.layers[0]->weights, whole.layers[0]->weights);
  EXPECT_EQ(stopped.layers[1]->weights, model.layers[1]->weights);
}

TEST(Watch, isToldOfTheWholeWork) {
  const MultiLayerNNModel model = largeModel();
  mlnn::ModelFile file;
  file.model = model;
  const std::string text = textOf(model);
  std::size_t steps = 0;
  const Watch watch = [&steps](std::size_t further) { steps += further; };
  mlnn::suspicionsOf(file, watch);
  EXPECT_EQ(steps, 2u);
  steps = 0;
  mlnn::diagnose(text, watch);
  EXPECT_GT(steps, text.size() - (std::size_t{1} << 19));
  EXPECT_LE(steps, text.size());
}

// The steps that work tells its watch of; nothing where it calls it with none.
std::string stepsOf(const std::function<void(const Watch&)>& work) {
  bool isCalled = false;
  std::size_t steps = 0;
  work([&](std::size_t further) {
    isCalled = true;
    steps += further;
  });
  return isCalled ? std::to_string(steps) : "never called";
}

TEST(Watch, isToldOfLayers) {
  const MultiLayerNNModel model = largeModel();
  MultiLayerNNModel codes = model;
  ASSERT_EQ(mlnn::quantizeRows(codes, {}), 0);
  mlnn::ModelFile file;
  file.model = model;
  EXPECT_EQ(stepsOf([&](const Watch& watch) { mlnn::summaryOf(codes, watch); }), "2");
  EXPECT_EQ(stepsOf([&](const Watch& watch) { mlnn::weightForms(codes, watch); }), "2");
  EXPECT_EQ(stepsOf([&](const Watch& watch) { mlnn::compareNumbers(model, codes, watch); }), "2");
  EXPECT_EQ(stepsOf([&](const Watch& watch) { mlnn::findQuantization(model, codes, watch); }), "2");
  EXPECT_EQ(stepsOf([&](const Watch& watch) { mlnn::digestOf(file, watch); }), "2");
}

TEST(Watch, isCalledWithoutStepsWhereNothingIsCounted) {
  const MultiLayerNNModel model = largeModel();
  const Eigen::MatrixXf& weights = model.layers[0]->weights;
  EXPECT_EQ(stepsOf([&](const Watch& watch) { mlnn::Difference().add(weights, weights, watch); }),
            "0");
  EXPECT_EQ(stepsOf([&](const Watch& watch) { mlnn::cellMapOf(weights, 9, 9, watch); }), "0");
  EXPECT_EQ(stepsOf([&](const Watch& watch) { mlnn::statisticsOf(weights, watch); }), "0");
  EXPECT_EQ(stepsOf([&](const Watch& watch) { mlnn::rowNormsOf(weights, watch); }), "0");
  EXPECT_EQ(stepsOf([&](const Watch& watch) { mlnn::copyOf(model, watch); }), "0");
  EXPECT_EQ(stepsOf([&](const Watch& watch) { mlnn::ModelAverage().add(model, 1, watch); }), "0");
  EXPECT_EQ(stepsOf([&](const Watch& watch) { mlnn::budgetOf(model, watch); }), "0");
  EXPECT_EQ(stepsOf([&](const Watch& watch) { mlnn::codedSizeOf(model, 8, watch); }), "0");
  EXPECT_EQ(stepsOf([&](const Watch& watch) { mlnn::integerSizeOf(model, watch); }), "0");
}

}  // namespace
