#include <gtest/gtest.h>

#include <limits>
#include <utility>

#include "analysis/ModelSuspicions.h"
#include "tests/support/TestModels.h"

namespace {

using mlnn::ModelFile;
using mlnn::ModelFormat;
using mlnn::Suspicion;
using mlnn::test::batchNormLayer;
using mlnn::test::modelOf;
using mlnn::test::plainLayer;

constexpr float kInfinity = std::numeric_limits<float>::infinity();
constexpr float kNaN = std::numeric_limits<float>::quiet_NaN();

// A text of a model that there is nothing to say against: 4 -> 3 plain, 3 -> 5 batch norm,
// 5 -> 2 plain and linear under a softmax; frames of 4 bands, normalised.
ModelFile soundFile() {
  ModelFile file;
  file.textVersion = 2;
  file.model = modelOf({plainLayer(4, 3, 1), batchNormLayer(3, 5, 2), plainLayer(5, 2, 3)});
  file.model.layers.back()->actFn = ActFn::linear;
  file.model.featureDesc.numBands = 4;
  file.model.deltasNorm.minvals = Eigen::VectorXf::Constant(120, -1.0f);
  file.model.deltasNorm.normvals = Eigen::VectorXf::Constant(120, 0.5f);
  return file;
}

std::string said(const ModelFile& file) {
  std::string lines;
  for (const Suspicion& suspicion : suspicionsOf(file)) {
    lines += suspicion.kind + ": " + suspicion.text + "\n";
  }
  return lines;
}

// What is said after `change(model)`.
template <typename Change>
std::string saidAfter(Change change) {
  ModelFile file = soundFile();
  change(file.model);
  return said(file);
}

TEST(ModelSuspicions, areNoneInASoundModel) {
  ModelFile file = soundFile();
  EXPECT_EQ(said(file), "");
  file.format = ModelFormat::kBinary;
  EXPECT_EQ(said(file), "");
}

TEST(ModelSuspicions, countValuesThatAreNotFinite) {
  ModelFile file = soundFile();
  Eigen::MatrixXf& weights = file.model.layers[1]->weights;
  weights(4, 0) = kNaN;
  weights(2, 2) = -kInfinity;
  weights(2, 1) = kInfinity;
  file.model.layers[0]->bias[1] = kNaN;
  EXPECT_EQ(
      said(file),
      "values_not_finite: layer 1: bias holds 1 value that is not finite, the first at number "
      "2 (nan)\n"
      "values_not_finite: layer 2: weights holds 3 values that are not finite, the first at "
      "row 3, column 2 (inf)\n");
  const Suspicion suspicion = suspicionsOf(file)[1];
  EXPECT_EQ(suspicion.layer, 2u);
  EXPECT_EQ(suspicion.array, "weights");
  EXPECT_EQ(suspicion.row, 3u);
  EXPECT_EQ(suspicion.column, 2u);
  EXPECT_EQ(suspicion.count, 3u);
}

TEST(ModelSuspicions, lookIntoEveryArrayForValuesThatAreNotFinite) {
  for (const auto& [name, array] :
       {std::pair("bias", &NNLayer::bias), std::pair("gamma", &NNLayer::gamma),
        std::pair("beta", &NNLayer::beta), std::pair("gamma_inf", &NNLayer::gamma_inf),
        std::pair("beta_inf", &NNLayer::beta_inf)}) {
    ModelFile file = soundFile();
    (file.model.layers[1]->*array)[0] = kNaN;
    const std::vector<Suspicion> suspicions = suspicionsOf(file);
    ASSERT_EQ(suspicions.size(), 1u) << name;
    EXPECT_EQ(suspicions[0].array, name);
    EXPECT_EQ(suspicions[0].row, 1u);
    EXPECT_EQ(suspicions[0].column, 0u);
  }
}

TEST(ModelSuspicions, nameUnitsWithoutWeights) {
  EXPECT_EQ(saidAfter([](MultiLayerNNModel& model) {
              model.layers[1]->weights.row(1).setZero();
              model.layers[1]->weights.row(4).setConstant(-0.0f);
            }),
            "units_without_weights: layer 2: 2 of 5 units can never fire, all weights are 0: 2 and "
            "5\n");
  ModelFile file = soundFile();
  file.model.layers[0]->weights.setZero(20, 4);
  file.model.layers[0]->bias.setZero(20);
  file.model.layers[1]->weights.setOnes(5, 20);
  EXPECT_EQ(said(file),
            "units_without_weights: layer 1: 20 of 20 units can never fire, all weights are 0: 1, "
            "2, 3, 4, 5, 6, 7 and 13 more\n");
}

// A file with these codes, of 3 bits, in the two rows of its only layer; scales are 0.5 and 0.25.
ModelFile quantisedFile(const std::vector<float>& first, const std::vector<float>& second) {
  const auto inputs = static_cast<Eigen::Index>(first.size());
  ModelFile file = soundFile();
  file.model = modelOf({plainLayer(static_cast<int>(inputs), 2)});
  file.model.layers[0]->actFn = ActFn::linear;
  file.model.featureDesc.numBands = static_cast<int>(inputs);
  file.model.deltasNorm = soundFile().model.deltasNorm;
  Eigen::MatrixXf& weights = file.model.layers[0]->weights;
  for (Eigen::Index c = 0; c < inputs; ++c) {
    weights(0, c) = first[static_cast<std::size_t>(c)] * 0.5f;
    weights(1, c) = second[static_cast<std::size_t>(c)] * 0.25f;
  }
  return file;
}

// Half of the weights that are not 0 at the largest size, or nearly so.
TEST(ModelSuspicions, nameUnitsWhoseQuantisedWeightsWereCut) {
  const std::vector<float> half = {3, -3, 3, 3, -3, 3, 3, 3, 1, 2, -1, 2, 1, -2, 1, 2, 0, 0};
  std::vector<float> less = half;
  less[0] = 2;
  EXPECT_EQ(
      said(quantisedFile(less, half)),
      "units_clipped: layer 1: 1 of 2 units have half of their weights or more at the largest "
      "value, as a scale that is too small leaves them: 2\n");
  EXPECT_EQ(
      said(quantisedFile(half, half)),
      "units_clipped: layer 1: 2 of 2 units have half of their weights or more at the largest "
      "value, as a scale that is too small leaves them: 1 and 2\n");
  EXPECT_EQ(said(quantisedFile(less, less)), "");
  const Suspicion suspicion = suspicionsOf(quantisedFile(less, half)).at(0);
  EXPECT_EQ(suspicion.layer, 1u);
  EXPECT_EQ(suspicion.array, "weights");
  EXPECT_EQ(suspicion.row, 2u);
  EXPECT_EQ(suspicion.count, 1u);
}

// With 2 bits there is but one size, and few weights may all be of one.
TEST(ModelSuspicions, doNotCallFewSizesOrFewWeightsCut) {
  const std::vector<float> twoBits = {1, -1, 1, 1, 0, 1, -1, 1, 0, 1, 1, 1, 0, 1, -1, 1, 1, 1};
  EXPECT_EQ(said(quantisedFile(twoBits, twoBits)), "");
  const std::vector<float> few = {3, -3, 3, 3, 3, 2, 3};
  EXPECT_EQ(said(quantisedFile(few, few)), "");
}

TEST(ModelSuspicions, nameBatchNormThatWasNeverFilled) {
  EXPECT_EQ(saidAfter([](MultiLayerNNModel& model) { model.layers[1]->gamma_inf.setZero(); }),
            "batch_norm_not_filled: layer 2: the inference values of the batch normalisation were "
            "never filled: gamma_inf is all 0\n");
  EXPECT_EQ(saidAfter([](MultiLayerNNModel& model) { model.layers[1]->gamma_inf[3] = 0; }),
            "units_scaled_to_zero: layer 2: 1 of 5 units can never fire, gamma_inf is 0: 4\n");
  EXPECT_EQ(saidAfter([](MultiLayerNNModel& model) {
              model.layers[1]->gamma_inf << 1, -1, 2, -2, 0.5f;
              model.layers[1]->gamma_inf[4] = 0;
            }),
            "batch_norm_sums_to_zero: layer 2: gamma_inf sums to 0, so that the layer cannot be "
            "folded into a plain one\n"
            "units_scaled_to_zero: layer 2: 1 of 5 units can never fire, gamma_inf is 0: 5\n");
}

TEST(ModelSuspicions, nameADescriptionThatDoesNotFit) {
  EXPECT_EQ(saidAfter([](MultiLayerNNModel& model) { model.featureDesc.winSizeLeft = 1; }),
            "feature_length: the feature description implies 8 inputs, the model takes 4\n");
  EXPECT_EQ(saidAfter([](MultiLayerNNModel& model) { model.featureDesc.numBands = -3; }),
            "feature_length: the feature description implies no possible length: "
            "mel_deltas:bands=-3,left=0,right=0,deltas=0,line_kernels=0,line_kernel_width=0\n");
  EXPECT_EQ(saidAfter([](MultiLayerNNModel& model) {
              model.featureDesc.winSizeLeft = -2;
              model.featureDesc.winSizeRight = 2;
            }),
            "window_negative: the window has -2 frames to the left and 2 to the right\n");
  EXPECT_EQ(saidAfter([](MultiLayerNNModel& model) { model.featureDesc.featType = 9; }),
            "feature_type_unknown: the feature description is of type 9, which is unknown\n");
  EXPECT_EQ(saidAfter([](MultiLayerNNModel& model) { model.featureDesc.useLineKernels = true; }),
            "line_kernel_width: line kernels are on, with a width of 0\n");
}

TEST(ModelSuspicions, sayWhatADescriptionWithoutBandsLeavesOpen) {
  EXPECT_EQ(
      saidAfter([](MultiLayerNNModel& model) {
        model.featureDesc.numBands = 0;
        model.featureDesc.winSizeLeft = 1;
      }),
      "bands_unknown: the feature description states no number of bands; the inputs have room "
      "for frames of 2 values\n");
  EXPECT_EQ(saidAfter([](MultiLayerNNModel& model) {
              model.featureDesc.numBands = 0;
              model.featureDesc.winSizeLeft = 2;
            }),
            "bands_unknown: the feature description states no number of bands, and its 3 frames do "
            "not share the 4 inputs evenly\n");
}

TEST(ModelSuspicions, nameFramesThatTheNormalisationIsTooShortFor) {
  ModelFile file = soundFile();
  file.model.layers[0]->weights = mlnn::test::someValues(3, 121, 9);
  file.model.featureDesc.numBands = 121;
  EXPECT_EQ(said(file), "frame_length: a frame has 121 values, the normalisation 120\n");
}

TEST(ModelSuspicions, nameANormalisationThatDoesNothing) {
  EXPECT_EQ(saidAfter([](MultiLayerNNModel& model) { model.deltasNorm = MelDeltasNorm(); }),
            "normalisation_absent: there is no normalisation: frames go in as they are\n");
  EXPECT_EQ(saidAfter([](MultiLayerNNModel& model) { model.deltasNorm.normvals.setOnes(); }),
            "normalisation_divides_nothing: the normalisation divides nothing: all normvals are "
            "1\n");
  EXPECT_EQ(saidAfter([](MultiLayerNNModel& model) {
              model.deltasNorm = MelDeltasNorm();
              model.deltasNorm.allocIfNeeded();
            }),
            "normalisation_divides_nothing: the normalisation divides nothing: all normvals are 1, "
            "and all minvals 0\n");
}

TEST(ModelSuspicions, nameAnOddNormalisation) {
  EXPECT_EQ(saidAfter([](MultiLayerNNModel& model) {
              model.deltasNorm.normvals[119] = 0;
              model.deltasNorm.normvals[7] = -0.0f;
            }),
            "normvals_zero: 2 normvals of 120 are 0, so that these values of a frame are always 0; "
            "the first is number 8\n");
  EXPECT_EQ(saidAfter([](MultiLayerNNModel& model) {
              model.deltasNorm.minvals[2] = kInfinity;
              model.deltasNorm.normvals[3] = kNaN;
            }),
            "values_not_finite: minvals holds 1 value that is not finite, the first at number 3 "
            "(inf)\n"
            "values_not_finite: normvals holds 1 value that is not finite, the first at number 4 "
            "(nan)\n");
  EXPECT_EQ(saidAfter([](MultiLayerNNModel& model) { model.deltasNorm.minvals.resize(0); }),
            "normalisation_length: the normalisation has 0 minvals instead of 120\n");
}

TEST(ModelSuspicions, nameLayersThatDoNotFit) {
  EXPECT_EQ(saidAfter([](MultiLayerNNModel& model) {
              *model.layers[2] = plainLayer(6, 2, 3);
              model.layers[2]->actFn = ActFn::linear;
            }),
            "layers_do_not_fit: layer 3: takes 6 inputs, but layer 2 has 5 outputs\n");
  EXPECT_EQ(saidAfter([](MultiLayerNNModel& model) {
              model.deleteLayers(3);
              model.featureDesc.numBands = 0;
              model.featureDesc.winSizeLeft = -1;
            }),
            "window_negative: the window has -1 frames to the left and 0 to the right\n"
            "bands_unknown: the feature description states no number of bands\n"
            "no_layers: the model has no layers\n");
}

TEST(ModelSuspicions, copeWithAMissingLayer) {
  EXPECT_EQ(saidAfter([](MultiLayerNNModel& model) {
              delete model.layers[1];
              model.layers[1] = nullptr;
            }),
            "layers_do_not_fit: layer 2: takes 0 inputs, but layer 1 has 3 outputs\n"
            "layers_do_not_fit: layer 3: takes 5 inputs, but layer 2 has 0 outputs\n"
            "layer_empty: layer 2: has no weights (0 x 0)\n");
}

TEST(ModelSuspicions, nameArraysOfAWrongLength) {
  EXPECT_EQ(saidAfter([](MultiLayerNNModel& model) {
              model.layers[0]->bias.resize(0);
              model.layers[0]->gamma = Eigen::VectorXf::Ones(2);
              model.layers[1]->bias.resize(0);  // a batch-norm layer may have none
              model.layers[1]->beta_inf = Eigen::VectorXf::Ones(6);
            }),
            "array_length: layer 1: bias has 0 values for 3 outputs\n"
            "array_length: layer 1: gamma has 2 values for 3 outputs\n"
            "array_length: layer 2: beta_inf has 6 values for 5 outputs\n");
}

TEST(ModelSuspicions, nameActivationsThatTheFileDoesNotRecord) {
  ModelFile file = soundFile();
  file.model.layers[1]->actFn = ActFn::linear;  // as the reader leaves a batch-norm layer
  EXPECT_EQ(
      said(file),
      "activation_not_recorded: the file does not record the activation of 1 hidden layer and "
      "has no property hidden_act_fn; they are taken as linear\n");
  file.model.props["hidden_act_fn"] = "re\x1blu";
  EXPECT_EQ(
      said(file),
      "activation_not_recorded: the file does not record the activation of 1 hidden layer and "
      "its property hidden_act_fn of 're\\x1blu' is no activation; they are taken as "
      "linear\n");
  file.model.props["hidden_act_fn"] = "linear";
  EXPECT_EQ(said(file), "");
  file.model.props.clear();
  file.format = ModelFormat::kBinary;
  EXPECT_EQ(said(file), "");
}

TEST(ModelSuspicions, nameHiddenLayersThatAreAllLinear) {
  ModelFile file = soundFile();
  file.format = ModelFormat::kBinary;
  for (NNLayer* layer : file.model.layers) layer->actFn = ActFn::linear;
  EXPECT_EQ(
      said(file),
      "hidden_layers_linear: all hidden layers are linear, so that the model computes no more "
      "than one layer could\n");
}

TEST(ModelSuspicions, knowAllActivationsOfAModelInMemory) {
  ModelFile file = soundFile();
  for (NNLayer* layer : file.model.layers) layer->actFn = ActFn::linear;
  const std::vector<Suspicion> ofFile = suspicionsOf(file);
  ASSERT_EQ(ofFile.size(), 1u);
  EXPECT_EQ(ofFile[0].kind, "activation_not_recorded");
  const std::vector<Suspicion> inMemory = mlnn::suspicionsOf(file.model);
  ASSERT_EQ(inMemory.size(), 1u);
  EXPECT_EQ(inMemory[0].kind, "hidden_layers_linear");
}

TEST(ModelSuspicions, nameASoftmaxThatDoesNotFit) {
  ModelFile file = soundFile();
  file.model.layers[2]->actFn = ActFn::sigmoid;
  EXPECT_EQ(
      said(file),
      "softmax_after_activation: layer 3: the output layer has the activation sigmoid under a "
      "softmax, which wants linear\n");
  file.model.useSoftmax = false;
  EXPECT_EQ(said(file), "");
  file = soundFile();
  file.format = ModelFormat::kBinary;
  *file.model.layers[2] = plainLayer(5, 1, 3);
  file.model.layers[2]->actFn = ActFn::linear;
  EXPECT_EQ(
      said(file),
      "softmax_of_one_output: layer 3: the only output is always 1, since a softmax is on (an "
      "image does not record the softmax; it is taken as on)\n");
}

// How often a watch is told while one layer is looked at, whose second unit has no weights.
std::size_t timesTold(int inputs) {
  MultiLayerNNModel model = modelOf({plainLayer(inputs, 3, 1)});
  model.layers[0]->weights.row(1).setZero();
  std::size_t times = 0;
  mlnn::suspicionsOf(model, [&times](std::size_t) { ++times; });
  return times;
}

TEST(ModelSuspicions, tellAWatchOnceInSomeColumns) {
  const std::size_t once = timesTold(64);
  EXPECT_EQ(timesTold(65), once + 2);  // one for values, one for units
  EXPECT_EQ(timesTold(640), once + 18);
}

}  // namespace
