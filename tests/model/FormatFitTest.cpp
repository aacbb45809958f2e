#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <sstream>
#include <string>
#include <vector>

#include "layers/Messages.h"
#include "model/FormatFit.h"
#include "tests/support/CaptureStderr.h"
#include "tests/support/TestModels.h"
#include "text/Numbers.h"

namespace {

using Lines = std::vector<std::string>;
using mlnn::Fit;
using mlnn::fitToFormat;
using mlnn::kExactDigits;
using mlnn::ModelFormat;
using mlnn::test::foldedLayer;
using mlnn::test::fullModel;
using mlnn::test::imageModel;
using mlnn::test::modelOf;
using mlnn::test::plainLayer;
using mlnn::test::sameBits;
using mlnn::test::sameDescription;
using mlnn::test::sameLayers;

constexpr char kNormalisationDone[] = "the normalisation is written as note lines";
constexpr char kDescriptionDone[] = "the feature description is written as a note line";

std::string writtenAs(const MultiLayerNNModel& model, ModelFormat format) {
  if (format == ModelFormat::kBinary) {
    std::string whyNot;
    const std::vector<char> image = mlnn::imageOf(model, whyNot).value();
    return {image.begin(), image.end()};
  }
  std::ostringstream out;
  mlnn::writeText(model, kExactDigits, out);
  return out.str();
}

// Writes a model that was made ready and reads it as the tool does.
MultiLayerNNModel writtenAndRead(const MultiLayerNNModel& model, ModelFormat format) {
  const std::string bytes = writtenAs(model, format);
  const mlnn::CollectedMessages said;
  mlnn::ModelFile file;
  EXPECT_EQ(mlnn::openModel(bytes.data(), bytes.size(), file), 0) << said.text();
  return std::move(file.model);
}

Fit fitToText(MultiLayerNNModel& model, int precision = kExactDigits) {
  std::string whyNot;
  return fitToFormat(model, ModelFormat::kText, precision, whyNot).value();
}

Fit fitToImage(MultiLayerNNModel& model) {
  std::string whyNot;
  return fitToFormat(model, ModelFormat::kBinary, kExactDigits, whyNot).value();
}

// A batch-norm layer without the bias that it has no use for.
NNLayer batchNormLayer(int inputs, int outputs) {
  NNLayer layer = mlnn::test::batchNormLayer(inputs, outputs);
  layer.bias.setZero();
  return layer;
}

DbnFeatureDescription description(int bands, int left, int right) {
  DbnFeatureDescription desc(DbnFeatureDescription::MelDeltas);
  desc.numBands = bands;
  desc.winSizeLeft = left;
  desc.winSizeRight = right;
  return desc;
}

// A plain model 6 -> 2 of three frames of two bands, without normalisation.
MultiLayerNNModel smallModel() {
  MultiLayerNNModel model = modelOf({plainLayer(6, 2)});
  model.featureDesc = description(2, 1, 1);
  return model;
}

// --- To an image ---

TEST(FormatFit, anImageHoldsAllOfABareModel) {
  MultiLayerNNModel model = imageModel();
  model.featureDesc = description(1, 1, 2);
  const Fit fit = fitToImage(model);
  EXPECT_EQ(fit.lost, Lines{});
  EXPECT_EQ(fit.done, Lines{});
  const MultiLayerNNModel read = writtenAndRead(model, ModelFormat::kBinary);
  EXPECT_TRUE(mlnn::test::sameModel(read, model));
}

TEST(FormatFit, namesWhatAnImageDoesNotHold) {
  MultiLayerNNModel model = imageModel();
  model.useSoftmax = false;
  model.notes.lines = {"one", "two"};
  model.props = {{"a", "1"}, {"b\n", "2"}};
  model.loss = {1, 2, 3};
  model.accuracy = {0.5f};
  EXPECT_EQ(fitToImage(model).lost,
            (Lines{"that the softmax is off", "2 note lines", "2 properties (a, b\\n)",
                   "the loss curve (3 values)", "the accuracy curve (1 value)"}));
}

TEST(FormatFit, anImageGetsTheNormalisationThatItNeeds) {
  MultiLayerNNModel model = smallModel();
  const Fit fit = fitToImage(model);
  EXPECT_EQ(fit.lost, Lines{});
  EXPECT_EQ(fit.done,
            Lines{"a normalisation that changes nothing is added, since an image needs one"});
  EXPECT_TRUE(sameBits(model.deltasNorm.minvals, Eigen::VectorXf::Zero(120)));
  EXPECT_TRUE(sameBits(model.deltasNorm.normvals, Eigen::VectorXf::Ones(120)));
  EXPECT_TRUE(sameLayers(writtenAndRead(model, ModelFormat::kBinary), model));
}

TEST(FormatFit, anImageHoldsValuesThatAreNotFinite) {
  MultiLayerNNModel model = imageModel();
  model.layers[0]->weights(0, 0) = std::numeric_limits<float>::quiet_NaN();
  model.deltasNorm.minvals[7] = std::numeric_limits<float>::infinity();
  EXPECT_EQ(fitToImage(model).lost, Lines{});
}

// --- To a text ---

TEST(FormatFit, aTextHoldsWhatItsNotesSay) {
  MultiLayerNNModel model = smallModel();
  model.notes.lines = {
      "nn_tune feat_desc mel_deltas:bands=2,left=1,right=1,deltas=0,"
      "line_kernels=0,line_kernel_width=0"};
  const Lines notes = model.notes.lines;
  const Fit fit = fitToText(model);
  EXPECT_EQ(fit.lost, Lines{});
  EXPECT_EQ(fit.done, Lines{});
  EXPECT_EQ(model.notes.lines, notes);
}

TEST(FormatFit, aDescriptionThatNoNoteSaysBecomesANote) {
  MultiLayerNNModel model = smallModel();
  model.notes.lines = {"history"};
  const Fit fit = fitToText(model);
  EXPECT_EQ(fit.lost, Lines{});
  EXPECT_EQ(fit.done, Lines{kDescriptionDone});
  EXPECT_EQ(model.notes.lines,
            (Lines{"history",
                   "nn_tune feat_desc mel_deltas:bands=2,left=1,right=1,deltas=0,line_kernels=0,"
                   "line_kernel_width=0"}));
  EXPECT_TRUE(
      sameDescription(writtenAndRead(model, ModelFormat::kText).featureDesc, model.featureDesc));
}

TEST(FormatFit, aStaleDescriptionIsReplaced) {
  MultiLayerNNModel model = smallModel();
  const std::string right =
      "nn_tune feat_desc mel_deltas:bands=2,left=1,right=1,deltas=0,line_kernels=0,"
      "line_kernel_width=0";
  for (const std::string stale : {"nn_tune feat_desc mel_deltas:bands=2,left=0,right=2,deltas=0,"
                                  "line_kernels=0,line_kernel_width=0",
                                  "nn_tune feat_desc rubbish"}) {
    model.notes.lines = {"before", stale, "after"};
    EXPECT_EQ(fitToText(model).lost, Lines{"1 note line"});
    EXPECT_EQ(model.notes.lines, (Lines{"before", right, "after"}));
  }
}

// A note that no reader accepts does not keep the lines after it from being found.
TEST(FormatFit, theNormalisationAfterABrokenNoteIsKept) {
  MultiLayerNNModel model = smallModel();
  model.deltasNorm.allocIfNeeded();
  model.deltasNorm.minvals[0] = 0.5f;
  fitToText(model);
  const Lines right = model.notes.lines;
  model.notes.lines[0] = "nn_tune feat_desc rubbish";
  EXPECT_EQ(fitToText(model).done, Lines{kDescriptionDone});
  EXPECT_EQ(model.notes.lines, right);
}

// The reader's own values without any note: 7 frames on either side, deltas, no bands.
TEST(FormatFit, theReadersOwnDescriptionNeedsNoNote) {
  MultiLayerNNModel model = modelOf({plainLayer(6, 2)});
  model.featureDesc = description(0, 7, 7);
  model.featureDesc.useDeltas = true;
  EXPECT_EQ(fitToText(model).done, Lines{});
  EXPECT_EQ(model.notes.lines, Lines{});
}

TEST(FormatFit, aDescriptionThatDoesNotFitTheInputsLosesItsBands) {
  MultiLayerNNModel model = smallModel();
  model.featureDesc.numBands = 3;
  const Fit fit = fitToText(model);
  EXPECT_EQ(fit.lost,
            Lines{"the feature description mel_deltas:bands=3,left=1,right=1,deltas=0,"
                  "line_kernels=0,line_kernel_width=0, which becomes mel_deltas:bands=0,left=1,"
                  "right=1,deltas=0,line_kernels=0,line_kernel_width=0"});
  EXPECT_EQ(writtenAndRead(model, ModelFormat::kText).featureDesc.winSizeLeft, 1);
}

TEST(FormatFit, aTextHasNoWordForOtherTypesAndTheReservedByte) {
  MultiLayerNNModel model = smallModel();
  model.featureDesc.featType = 3;
  model.featureDesc.reserved = 9;
  EXPECT_EQ(fitToText(model).lost,
            (Lines{"the feature description type_3:bands=2,left=1,right=1,deltas=0,"
                   "line_kernels=0,line_kernel_width=0, which becomes mel_deltas:bands=2,left=1,"
                   "right=1,deltas=0,line_kernels=0,line_kernel_width=0",
                   "the reserved byte of the feature description (9)"}));
}

TEST(FormatFit, aNormalisationThatNoNoteSaysBecomesNotes) {
  MultiLayerNNModel model = smallModel();
  model.deltasNorm.allocIfNeeded();
  for (int i = 0; i < 120; ++i) {
    model.deltasNorm.minvals[i] = -1.0f / static_cast<float>(i + 3);
    model.deltasNorm.normvals[i] = std::exp(static_cast<float>(i - 100));
  }
  const Fit fit = fitToText(model);
  EXPECT_EQ(fit.lost, Lines{});
  EXPECT_EQ(fit.done, (Lines{kDescriptionDone, kNormalisationDone}));
  ASSERT_EQ(model.notes.lines.size(), 3u);
  EXPECT_EQ(model.notes.lines[1].rfind("TRAIN rbm_train mlnn convert -deltas_norm_minvals "
                                       "-0.333333343,-0.25,-0.200000003,",
                                       0),
            0u);
  EXPECT_EQ(model.notes.lines[2].rfind("TRAIN rbm_train mlnn convert -deltas_norm_normvals ", 0),
            0u);
  const MultiLayerNNModel read = writtenAndRead(model, ModelFormat::kText);
  EXPECT_TRUE(sameBits(read.deltasNorm.minvals, model.deltasNorm.minvals));
  EXPECT_TRUE(sameBits(read.deltasNorm.normvals, model.deltasNorm.normvals));
}

TEST(FormatFit, aNormalisationHoldsEveryFloat) {
  MultiLayerNNModel model = smallModel();
  model.deltasNorm.allocIfNeeded();
  const float infinity = std::numeric_limits<float>::infinity();
  model.deltasNorm.minvals.head(4) << infinity, -infinity, -0.0f,
      std::numeric_limits<float>::denorm_min();
  model.deltasNorm.normvals[0] = std::numeric_limits<float>::quiet_NaN();
  EXPECT_EQ(fitToText(model).lost, Lines{});
  const MultiLayerNNModel read = writtenAndRead(model, ModelFormat::kText);
  EXPECT_TRUE(sameBits(read.deltasNorm.minvals, model.deltasNorm.minvals));
  EXPECT_TRUE(std::isnan(read.deltasNorm.normvals[0]));
}

TEST(FormatFit, onlyTheStaleNormalisationIsReplaced) {
  MultiLayerNNModel model = smallModel();
  model.deltasNorm.allocIfNeeded();
  model.deltasNorm.minvals[0] = 0.5f;
  fitToText(model);
  const Lines right = model.notes.lines;
  model.deltasNorm.minvals[0] = 0.25f;
  const Fit fit = fitToText(model);
  EXPECT_EQ(fit.lost, Lines{"1 note line"});
  EXPECT_EQ(fit.done, Lines{kNormalisationDone});
  ASSERT_EQ(model.notes.lines.size(), 3u);
  EXPECT_EQ(model.notes.lines[0], right[0]);
  EXPECT_EQ(model.notes.lines[1], right[2]);  // the other array's line is still true
  EXPECT_EQ(writtenAndRead(model, ModelFormat::kText).deltasNorm.minvals[0], 0.25f);
}

TEST(FormatFit, theActivationThatHiddenBatchNormLayersShareBecomesAProperty) {
  MultiLayerNNModel model =
      modelOf({batchNormLayer(6, 4), plainLayer(4, 3), batchNormLayer(3, 3), batchNormLayer(3, 2)});
  for (const std::size_t i : {0u, 2u}) model.layers[i]->actFn = ActFn::relu;
  model.layers[3]->actFn = ActFn::linear;
  model.featureDesc = description(2, 1, 1);
  const Fit fit = fitToText(model);
  EXPECT_EQ(fit.lost, Lines{});
  EXPECT_EQ(fit.done, (Lines{"the activation of the hidden batch-norm layers is written as the "
                             "property hidden_act_fn (relu)",
                             kDescriptionDone}));
  EXPECT_EQ(model.getProp("hidden_act_fn"), "relu");
  EXPECT_EQ(fitToText(model).done, Lines{});
  const MultiLayerNNModel read = writtenAndRead(model, ModelFormat::kText);
  for (std::size_t i = 0; i < 4; ++i) EXPECT_EQ(read.layers[i]->actFn, model.layers[i]->actFn);
}

TEST(FormatFit, aWrongActivationPropertyIsCorrected) {
  MultiLayerNNModel model = modelOf({batchNormLayer(6, 4), plainLayer(4, 2)});
  model.props["hidden_act_fn"] = "tanh";
  EXPECT_EQ(fitToText(model).lost, Lines{});
  EXPECT_EQ(model.getProp("hidden_act_fn"), "sigmoid");
}

// A text without the property reads back as linear as well, and its reader is warned.
TEST(FormatFit, linearBatchNormLayersGetNoProperty) {
  MultiLayerNNModel model = modelOf({batchNormLayer(6, 4), plainLayer(4, 2)});
  model.layers[0]->actFn = ActFn::linear;
  EXPECT_EQ(fitToText(model).lost, Lines{});
  EXPECT_EQ(model.props.count("hidden_act_fn"), 0u);
  model.props["hidden_act_fn"] = "tanh";
  EXPECT_EQ(fitToText(model).lost, Lines{});
  EXPECT_EQ(model.getProp("hidden_act_fn"), "linear");
}

TEST(FormatFit, namesActivationsThatATextDoesNotHold) {
  MultiLayerNNModel model =
      modelOf({batchNormLayer(6, 4), batchNormLayer(4, 3), batchNormLayer(3, 2)});
  model.layers[1]->actFn = ActFn::relu;
  EXPECT_EQ(fitToText(model).lost, (Lines{"the activation of batch-norm layer 1 (sigmoid)",
                                          "the activation of batch-norm layer 2 (relu)",
                                          "the activation of batch-norm layer 3 (sigmoid)"}));
  EXPECT_EQ(model.props.count("hidden_act_fn"), 0u);
}

TEST(FormatFit, namesArraysThatATextHasNoPlaceFor) {
  MultiLayerNNModel model = modelOf({foldedLayer(6, 4), batchNormLayer(4, 2)});
  model.layers[1]->bias = Eigen::VectorXf::LinSpaced(2, 0, 1);
  model.layers[1]->actFn = ActFn::linear;
  EXPECT_EQ(fitToText(model).lost,
            (Lines{"the batch-norm vectors that plain layer 1 was folded from",
                   "the unused bias of batch-norm layer 2"}));
  model.layers[1]->bias.setZero();
  EXPECT_EQ(fitToText(model).lost.size(), 1u);
}

std::string refusalOfText(MultiLayerNNModel model, int precision = mlnn::kExactDigits) {
  std::string whyNot;
  const bool fits = fitToFormat(model, ModelFormat::kText, precision, whyNot).has_value();
  EXPECT_EQ(fits, whyNot.empty());
  return whyNot;
}

TEST(FormatFit, refusesValuesThatAreNotFinite) {
  MultiLayerNNModel model = smallModel();
  model.layers[0]->weights(0, 0) = std::numeric_limits<float>::quiet_NaN();
  model.layers[0]->bias[0] = std::numeric_limits<float>::infinity();
  EXPECT_EQ(refusalOfText(model),
            "the text format cannot hold values that are not finite: there are 2 in layer 1");
  model.loss = {1, -std::numeric_limits<float>::infinity()};
  EXPECT_EQ(
      refusalOfText(model),
      "the text format cannot hold values that are not finite: there is 1 in the training curves");
}

TEST(FormatFit, refusesNumbersThatFewerDigitsRoundBeyondSinglePrecision) {
  MultiLayerNNModel model = smallModel();
  model.layers[0]->bias[0] = -std::numeric_limits<float>::max();
  model.layers[0]->bias[1] = std::numeric_limits<float>::denorm_min();
  for (const int precision : {1, 2, 3, 5, 6, 7, 8, 9}) {
    EXPECT_EQ(refusalOfText(model, precision), "") << precision;
  }
  EXPECT_EQ(refusalOfText(model, 4),
            "with 4 digits the text could not be read again: 1 value in layer 1 would be rounded "
            "beyond single precision");
}

TEST(FormatFit, countsNumbersThatFewerDigitsRound) {
  MultiLayerNNModel model = smallModel();
  model.layers[0]->weights.setConstant(0.5f);
  model.layers[0]->bias = Eigen::VectorXf::LinSpaced(2, 0.1f, 1.0f / 3.0f);
  EXPECT_EQ(fitToText(model, 9).lost, Lines{});
  EXPECT_EQ(fitToText(model, 3).lost, Lines{"1 number exactly, with 3 digits"});
}

TEST(FormatFit, refusesAShapeThatATextCannotSay) {
  EXPECT_EQ(refusalOfText(modelOf({batchNormLayer(0, 2)})),
            "the text format has no way to write batch-norm layer 1, which has outputs but no "
            "inputs");
}

TEST(FormatFit, refusesNotesThatWouldBreakTheText) {
  MultiLayerNNModel model = smallModel();
  model.notes.lines = {"two\nlines"};
  EXPECT_EQ(
      refusalOfText(model).rfind(
          "the text format has no way to write this model so that it can be read: ERROR: ", 0),
      0u);
}

// A description that an option line of the notes spoils, and a property that acts as one.
TEST(FormatFit, whatOptionLinesSayIsTakenIntoAccount) {
  MultiLayerNNModel model = smallModel();
  model.notes.lines = {"nn_tune comment -win_size_left 4"};
  model.props["x"] = "nn_tune comment -win_size_right 5";
  EXPECT_EQ(fitToText(model).lost, Lines{});
  EXPECT_TRUE(
      sameDescription(writtenAndRead(model, ModelFormat::kText).featureDesc, model.featureDesc));
}

TEST(FormatFit, aFullModelSurvivesATextButForWhatIsNamed) {
  MultiLayerNNModel model = fullModel();
  const Fit fit = fitToText(model);
  const MultiLayerNNModel read = writtenAndRead(model, ModelFormat::kText);
  EXPECT_EQ(read.notes.lines, model.notes.lines);
  EXPECT_EQ(read.props, model.props);
  EXPECT_EQ(read.loss, model.loss);
  EXPECT_EQ(read.accuracy, model.accuracy);
  EXPECT_EQ(read.useSoftmax, model.useSoftmax);
  EXPECT_TRUE(sameBits(read.deltasNorm.minvals, model.deltasNorm.minvals));
  for (std::size_t i = 0; i < 3; ++i) {
    EXPECT_TRUE(sameBits(read.layers[i]->weights, model.layers[i]->weights));
    EXPECT_EQ(read.layers[i]->actFn, model.layers[i]->actFn);
  }
}

}  // namespace
