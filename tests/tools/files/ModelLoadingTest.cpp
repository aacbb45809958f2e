#include <gtest/gtest.h>

#include <string>

#include "tests/support/ByteImage.h"
#include "tests/support/CaptureStderr.h"
#include "tests/support/TestModels.h"
#include "tests/tools/support/ToolProcess.h"
#include "tools/Failure.h"
#include "tools/files/ModelLoading.h"

namespace {

using mlnn::LoadOptions;
using mlnn::ModelFile;
using mlnn::ModelFormat;
using mlnn::test::ByteImage;
using mlnn::test::TempFolder;

// Three layers 1 -> 1 -> 1 -> 1, of version 1 unless the header says otherwise.
std::string text(const std::string& properties, const std::string& header = "MultiLayerNNModel\n") {
  const std::string actFn = header == "MultiLayerNNModel\n" ? "" : "act_fn tanh\n";
  return header + properties + "num_layers 3\nlayer 1 size 1 2\n" + actFn +
         "0 1\nlayer 2 size 1 2\n" + actFn + "0 1\nlayer 3 size 1 2\n" + actFn + "0 1\n";
}

// A plain layer between two batch-norm layers.
std::string batchNormText(const std::string& properties) {
  return "MultiLayerNNModel_v2\nsoftmax 1\n" + properties +
         "num_layers 3\nbatch_norm_layer 1 size 1 1\n1\ngamma_beta\n1 0 1 0\n"
         "layer 2 size 1 2\nact_fn tanh\n0 1\n"
         "batch_norm_layer 3 size 1 1\n1\ngamma_beta\n1 0 1 0\n";
}

struct Loaded {
  ModelFile file;
  std::string messages;

  std::string activations() const {
    std::string names;
    for (const NNLayer* layer : file.model.layers) {
      names += (names.empty() ? "" : " ") + ActFn::actFnToString(layer->actFn);
    }
    return names;
  }
};

// Loads a file called M.
Loaded load(const std::string& content, const LoadOptions& options = {}) {
  const TempFolder folder;
  const std::string path = folder.write("M", content);
  Loaded loaded;
  loaded.messages = mlnn::test::stderrOf([&] { loaded.file = mlnn::loadModel(path, options); });
  for (std::size_t at; (at = loaded.messages.find(path)) != std::string::npos;) {
    loaded.messages.replace(at, path.size(), "M");
  }
  return loaded;
}

LoadOptions withActFn(const std::string& name) {
  LoadOptions options;
  options.hiddenActFn = name;
  return options;
}

TEST(ModelLoadingTest, tellsFormatVersionAndLength) {
  const ModelFile one = load(text("")).file;
  EXPECT_EQ(one.format, ModelFormat::kText);
  EXPECT_EQ(one.textVersion, 1);
  EXPECT_EQ(one.length, text("").size());

  const ModelFile two = load(text("", "MultiLayerNNModel_v2\nsoftmax 0\n")).file;
  EXPECT_EQ(two.format, ModelFormat::kText);
  EXPECT_EQ(two.textVersion, 2);

  const ByteImage image = ByteImage::of(mlnn::test::imageModel());
  const ModelFile three = load(image.bytes()).file;
  EXPECT_EQ(three.format, ModelFormat::kBinary);
  EXPECT_EQ(three.textVersion, 0);
  EXPECT_EQ(three.length, image.size());
}

TEST(ModelLoadingTest, versionOneTakesTheActivationFromTheProperty) {
  const Loaded loaded = load(text("# NVP hidden_act_fn relu\n"));
  EXPECT_EQ(loaded.activations(), "relu relu linear");
  EXPECT_EQ(loaded.messages,
            "info: activation of 2 hidden layers set to relu (property hidden_act_fn)\n");
}

TEST(ModelLoadingTest, batchNormLayersTakeTheActivationFromTheProperty) {
  const Loaded loaded = load(batchNormText("# NVP hidden_act_fn relu\n"));
  EXPECT_EQ(loaded.activations(), "relu tanh linear");
  EXPECT_EQ(loaded.messages,
            "info: activation of 1 hidden layer set to relu (property hidden_act_fn)\n");
}

TEST(ModelLoadingTest, whatTheCallerGivesComesFirst) {
  const Loaded loaded = load(batchNormText("# NVP hidden_act_fn relu\n"), withActFn("elu"));
  EXPECT_EQ(loaded.activations(), "elu tanh linear");
  EXPECT_EQ(loaded.messages, "info: activation of 1 hidden layer set to elu (--act-fn)\n");
}

TEST(ModelLoadingTest, warnsWhereNothingTellsTheActivation) {
  const Loaded loaded = load(text(""));
  EXPECT_EQ(loaded.activations(), "linear linear linear");
  EXPECT_EQ(loaded.messages,
            "Warning: 'M' does not record the activation of 2 hidden layers and has no property "
            "hidden_act_fn; they are taken as linear (see --act-fn)\n");
}

TEST(ModelLoadingTest, warnsOfAPropertyThatNamesNoActivation) {
  const Loaded loaded = load(batchNormText("# NVP hidden_act_fn re\x1blu\n"));
  EXPECT_EQ(loaded.activations(), "linear tanh linear");
  EXPECT_EQ(loaded.messages,
            "Warning: 'M' does not record the activation of 1 hidden layer and has a property "
            "hidden_act_fn of 're\\x1blu', which is no activation; they are taken as linear (see "
            "--act-fn)\n");
}

TEST(ModelLoadingTest, leavesRecordedActivationsAlone) {
  const std::string recorded =
      text("# NVP hidden_act_fn relu\n", "MultiLayerNNModel_v2\nsoftmax 1\n");
  EXPECT_EQ(load(recorded).activations(), "tanh tanh tanh");
  EXPECT_EQ(load(recorded).messages, "");
  const Loaded loaded = load(recorded, withActFn("elu"));
  EXPECT_EQ(loaded.activations(), "tanh tanh tanh");
  EXPECT_EQ(
      loaded.messages,
      "Warning: --act-fn changes nothing: 'M' records the activation of every hidden layer\n");
}

TEST(ModelLoadingTest, anImageRecordsTheActivationOfBatchNormLayers) {
  const Loaded loaded = load(ByteImage::of(mlnn::test::imageModel()).bytes());
  EXPECT_EQ(loaded.activations(), "sigmoid sigmoid sigmoid");
  EXPECT_EQ(loaded.messages, "");
}

TEST(ModelLoadingTest, showsTheReadersLinesWhenAskedTo) {
  LoadOptions options;
  options.verbose = true;
  EXPECT_EQ(load(text("# NVP hidden_act_fn tanh\n# NVP a \x1b[2J\n"), options).messages,
            "info: setting 'hidden_act_fn' = 'tanh'\n"
            "info: setting 'a' = '\\x1b[2J'\n"
            "info: activation of 2 hidden layers set to tanh (property hidden_act_fn)\n");
}

TEST(ModelLoadingTest, showsTheReadersErrorsAndFails) {
  const TempFolder folder;
  const std::string path = folder.write("M", "MultiLayerNNModel\n# NVP a b\nnum_\x1blayers 1\n");
  const auto loadIt = [&path] {
    try {
      mlnn::loadModel(path);
      FAIL();
    } catch (const mlnn::Failure& failure) {
      EXPECT_EQ(failure.what(), "could not load the model '" + path + "'");
    }
  };
  EXPECT_EQ(mlnn::test::stderrOf(loadIt),
            "ERROR: MultiLayerNNModel::deserializeAscii: expected 'num_layers' but found "
            "'num_\\x1blayers'\n");
}

// The reader of images says nothing about these.
TEST(ModelLoadingTest, saysWhyAnImageOfAFewBytesIsRefused) {
  const TempFolder folder;
  const std::string bytes = "MLNN123";
  for (std::size_t length = 4; length <= bytes.size(); ++length) {
    const std::string path = folder.write("M", bytes.substr(0, length));
    const auto loadIt = [&] {
      try {
        mlnn::loadModel(path);
        FAIL();
      } catch (const mlnn::Failure& failure) {
        EXPECT_EQ(failure.what(), "could not load the model '" + path + "': image of " +
                                      std::to_string(length) +
                                      " bytes is shorter than its head (1004)");
      }
    };
    EXPECT_EQ(mlnn::test::stderrOf(loadIt), "");
  }
}

}  // namespace
