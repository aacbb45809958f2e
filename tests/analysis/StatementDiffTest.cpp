#include <gtest/gtest.h>

#include "analysis/StatementDiff.h"
#include "tests/support/TestModels.h"

namespace {

using mlnn::StatementDifference;
using mlnn::test::batchNormLayer;
using mlnn::test::fullModel;
using mlnn::test::modelOf;
using mlnn::test::plainLayer;
using Lines = std::vector<std::string>;

// Each difference as "what: a | b", with "-" for a model that does not say it.
Lines linesOf(const MultiLayerNNModel& a, const MultiLayerNNModel& b) {
  Lines lines;
  for (const StatementDifference& found : mlnn::compareStatements(a, b)) {
    lines.push_back(found.what + ": " + found.a.value_or("-") + " | " + found.b.value_or("-"));
  }
  return lines;
}

Lines notesOf(const Lines& a, const Lines& b) {
  MultiLayerNNModel modelA;
  MultiLayerNNModel modelB;
  modelA.notes.lines = a;
  modelB.notes.lines = b;
  return linesOf(modelA, modelB);
}

TEST(StatementDiff, ofEqualModelsIsEmpty) {
  EXPECT_EQ(linesOf(MultiLayerNNModel(), MultiLayerNNModel()), Lines{});
  EXPECT_EQ(linesOf(fullModel(), fullModel()), Lines{});
}

TEST(StatementDiff, leavesParametersAlone) {
  MultiLayerNNModel changed = fullModel();
  changed.zeros();
  EXPECT_EQ(linesOf(fullModel(), changed), Lines{});
}

TEST(StatementDiff, comparesTheSoftmax) {
  MultiLayerNNModel off;
  off.useSoftmax = false;
  EXPECT_EQ(linesOf(MultiLayerNNModel(), off), Lines{"softmax: on | off"});
}

TEST(StatementDiff, comparesPropertiesByKey) {
  MultiLayerNNModel a;
  MultiLayerNNModel b;
  a.props = {{"changed", "1"}, {"gone", "x"}, {"same", "s"}, {"was empty", ""}};
  b.props = {{"changed", "2"}, {"new", "y"}, {"same", "s"}};
  EXPECT_EQ(linesOf(a, b), (Lines{"property changed: 1 | 2", "property gone: x | -",
                                  "property new: - | y", "property was empty:  | -"}));
}

TEST(StatementDiff, listsNotesBetweenCommonOnes) {
  EXPECT_EQ(notesOf({"a", "b"}, {"a", "b", "c"}), Lines{"note 3: - | c"});
  EXPECT_EQ(notesOf({"a", "x", "y", "b"}, {"a", "z", "b"}),
            (Lines{"note 2: x | -", "note 3: y | -", "note 2: - | z"}));
  EXPECT_EQ(notesOf({"a", "a"}, {"a", "a", "a"}), Lines{"note 3: - | a"});
  EXPECT_EQ(notesOf({"a", "b"}, {}), (Lines{"note 1: a | -", "note 2: b | -"}));
  EXPECT_EQ(notesOf({"a", "b"}, {"b", "a"}),
            (Lines{"note 1: a | -", "note 2: b | -", "note 1: - | b", "note 2: - | a"}));
}

TEST(StatementDiff, namesTheFirstValueOfACurveThatDiffers) {
  MultiLayerNNModel a;
  MultiLayerNNModel b;
  a.loss = {1, 0.5f, 0.25f};
  b.loss = {1, 0.75f, 0.125f};
  a.accuracy = {0.5f};
  EXPECT_EQ(linesOf(a, b),
            (Lines{"loss curve: 3 values, of which number 2 is 0.5 | 3 values, of which number 2 "
                   "is 0.75",
                   "accuracy curve: 1 value, of which number 1 is 0.5 | none"}));
  b.loss = {1, 0.5f};
  b.accuracy = a.accuracy;
  EXPECT_EQ(linesOf(a, b), Lines{"loss curve: 3 values, of which number 3 is 0.25 | 2 values"});
}

TEST(StatementDiff, comparesTheFeatureDescription) {
  MultiLayerNNModel a;
  MultiLayerNNModel b;
  b.featureDesc.numBands = 40;
  b.featureDesc.reserved = 7;
  EXPECT_EQ(
      linesOf(a, b),
      (Lines{"feature description: "
             "mel_deltas:bands=0,left=0,right=0,deltas=0,line_kernels=0,line_kernel_width=0 | "
             "mel_deltas:bands=40,left=0,right=0,deltas=0,line_kernels=0,line_kernel_width=0",
             "feature description, reserved byte: 0 | 7"}));
}

TEST(StatementDiff, takesNoNormalisationForOneThatChangesNothing) {
  MultiLayerNNModel none;
  MultiLayerNNModel some;
  some.deltasNorm.allocIfNeeded();
  EXPECT_EQ(linesOf(none, some), Lines{});
  some.deltasNorm.normvals[119] = 2;
  EXPECT_EQ(linesOf(none, some),
            Lines{"normalisation normvals: 120 values, of which number 120 is 1 | 120 values, of "
                  "which number 120 is 2"});
  some.deltasNorm.allocIfNeeded();
  some.deltasNorm.minvals[0] = -1;
  some.deltasNorm.normvals[119] = 1;
  EXPECT_EQ(linesOf(none, some),
            Lines{"normalisation minvals: 120 values, of which number 1 is 0 | 120 values, of "
                  "which number 1 is -1"});
}

TEST(StatementDiff, comparesShapeKindAndActivationOfLayers) {
  const MultiLayerNNModel a = modelOf({plainLayer(4, 3), plainLayer(3, 1)});
  const MultiLayerNNModel b = modelOf({batchNormLayer(4, 3)});
  EXPECT_EQ(linesOf(a, b),
            (Lines{"layer 1: 4 inputs, 3 outputs, plain, sigmoid | 4 inputs, 3 outputs, batch "
                   "norm, sigmoid",
                   "layer 2: 3 inputs, 1 output, plain, sigmoid | -"}));
  MultiLayerNNModel relu = a;
  relu.layers[1]->actFn = ActFn::relu;
  EXPECT_EQ(linesOf(a, relu),
            Lines{"layer 2: 3 inputs, 1 output, plain, sigmoid | 3 inputs, 1 output, plain, relu"});
}

}  // namespace
