#include <gtest/gtest.h>
#include <sys/stat.h>

#include <fstream>
#include <map>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>

#include "features/ContextWindow.h"
#include "model/FormatFit.h"
#include "model/ModelFile.h"
#include "tests/support/ByteImage.h"
#include "tests/support/CaptureStderr.h"
#include "tests/support/DigitsFolder.h"
#include "tests/support/SourceTree.h"
#include "tests/support/TempFolder.h"
#include "tests/support/TestModels.h"
#include "text/Numbers.h"

namespace {

using mlnn::ModelFile;
using mlnn::ModelFormat;
using mlnn::openModel;
using mlnn::OpenOptions;
using mlnn::test::ByteImage;
using mlnn::test::sameModel;
using mlnn::test::sourcePath;
using mlnn::test::stderrOf;
using mlnn::test::TempFolder;

const std::string kVersion1 = "MultiLayerNNModel\n";
const std::string kVersion2 = "MultiLayerNNModel_v2\nsoftmax 1\n";

// Three layers 1 -> 1 -> 1 -> 1, which a text of version 2 says to be tanh.
std::string text(const std::string& header, const std::string& properties) {
  const std::string actFn = header == kVersion1 ? "" : "act_fn tanh\n";
  return header + properties + "num_layers 3\nlayer 1 size 1 2\n" + actFn +
         "0 1\nlayer 2 size 1 2\n" + actFn + "0 1\nlayer 3 size 1 2\n" + actFn + "0 1\n";
}

// A plain layer between two batch-norm layers.
std::string batchNormText(const std::string& properties) {
  return kVersion2 + properties +
         "num_layers 3\nbatch_norm_layer 1 size 1 1\n1\ngamma_beta\n1 0 1 0\n"
         "layer 2 size 1 2\nact_fn tanh\n0 1\n"
         "batch_norm_layer 3 size 1 1\n1\ngamma_beta\n1 0 1 0\n";
}

std::string image() { return ByteImage::of(mlnn::test::imageModel()).bytes(); }

struct Opened {
  ModelFile file;
  int result = -1;
  std::string messages;

  std::string activations() const {
    std::string names;
    for (const NNLayer* layer : file.model.layers) {
      names += (names.empty() ? "" : " ") + ActFn::actFnToString(layer->actFn);
    }
    return names;
  }
};

Opened openBytes(const std::string& content, const OpenOptions& options = {}) {
  Opened opened;
  opened.messages = stderrOf(
      [&] { opened.result = openModel(content.data(), content.size(), opened.file, options); });
  return opened;
}

Opened openFile(const std::string& path, const OpenOptions& options = {}) {
  Opened opened;
  opened.messages = stderrOf([&] { opened.result = openModel(path, opened.file, options); });
  return opened;
}

OpenOptions withActFn(const std::string& name) {
  OpenOptions options;
  options.hiddenActFn = name;
  return options;
}

// --- What the file says ---

TEST(ModelFile, tellsFormatVersionAndLength) {
  const Opened one = openBytes(text(kVersion1, ""));
  EXPECT_EQ(one.file.format, ModelFormat::kText);
  EXPECT_EQ(one.file.textVersion, 1);
  EXPECT_EQ(one.file.length, text(kVersion1, "").size());

  const Opened two = openBytes(text(kVersion2, ""));
  EXPECT_EQ(two.file.format, ModelFormat::kText);
  EXPECT_EQ(two.file.textVersion, 2);

  const Opened three = openBytes(image());
  EXPECT_EQ(three.file.format, ModelFormat::kBinary);
  EXPECT_EQ(three.file.textVersion, 0);
  EXPECT_EQ(three.file.length, image().size());
}

TEST(ModelFile, aFileGivesWhatItsBytesGive) {
  const TempFolder folder;
  for (const std::string& content : {text(kVersion1, "# NVP hidden_act_fn relu\n"),
                                     batchNormText("# NVP hidden_act_fn elu\n"), image()}) {
    const Opened fromMemory = openBytes(content);
    const Opened fromFile = openFile(folder.write("M", content));
    EXPECT_EQ(fromFile.result, 0);
    EXPECT_EQ(fromFile.messages, fromMemory.messages);
    EXPECT_TRUE(sameModel(fromFile.file.model, fromMemory.file.model));
    EXPECT_EQ(fromFile.activations(), fromMemory.activations());
    EXPECT_EQ(fromFile.file.format, fromMemory.file.format);
    EXPECT_EQ(fromFile.file.textVersion, fromMemory.file.textVersion);
    EXPECT_EQ(fromFile.file.length, content.size());
    EXPECT_EQ(fromFile.file.name, folder.path("M"));
    EXPECT_EQ(fromMemory.file.name, "");
  }
}

TEST(ModelFile, aPipeGivesWhatAFileGives) {
  const TempFolder folder;
  const std::string path = folder.path("pipe");
  ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
  for (const std::string& content : {batchNormText("# NVP hidden_act_fn relu\n"), image()}) {
    std::thread writer([&] { std::ofstream(path) << content; });
    const Opened opened = openFile(path);
    writer.join();
    EXPECT_EQ(opened.result, 0);
    EXPECT_TRUE(sameModel(opened.file.model, openBytes(content).file.model));
    EXPECT_EQ(opened.file.length, content.size());
  }
}

// --- Activations ---

TEST(ModelFile, versionOneTakesTheActivationFromTheProperty) {
  const Opened opened = openBytes(text(kVersion1, "# NVP hidden_act_fn relu\n"));
  EXPECT_EQ(opened.result, 0);
  EXPECT_EQ(opened.activations(), "relu relu linear");
  EXPECT_EQ(opened.messages,
            "info: setting 'hidden_act_fn' = 'relu'\n"
            "info: activation of 2 hidden layers set to relu (property hidden_act_fn)\n");
}

TEST(ModelFile, batchNormLayersTakeTheActivationFromTheProperty) {
  EXPECT_EQ(openBytes(batchNormText("# NVP hidden_act_fn relu\n")).activations(),
            "relu tanh linear");
}

TEST(ModelFile, whatTheCallerGivesComesFirst) {
  const Opened opened = openBytes(batchNormText("# NVP hidden_act_fn relu\n"), withActFn("elu"));
  EXPECT_EQ(opened.activations(), "elu tanh linear");
  EXPECT_EQ(opened.messages,
            "info: setting 'hidden_act_fn' = 'relu'\n"
            "info: activation of 1 hidden layer set to elu (hiddenActFn)\n");
}

TEST(ModelFile, warnsWhereNothingTellsTheActivation) {
  const Opened opened = openBytes(batchNormText(""));
  EXPECT_EQ(opened.result, 0);
  EXPECT_EQ(opened.activations(), "linear tanh linear");
  EXPECT_EQ(opened.messages,
            "Warning: the model does not record the activation of 1 hidden layer and has no "
            "property hidden_act_fn; they are taken as linear (see hiddenActFn)\n");
}

TEST(ModelFile, warningsNameTheFileAndTheOptionAsTheCallerWishes) {
  const TempFolder folder;
  const std::string path = folder.write("M", text(kVersion1, "# NVP hidden_act_fn re\x1blu\n"));
  const std::string why =
      " does not record the activation of 2 hidden layers and has a property hidden_act_fn of "
      "'re\\x1blu', which is no activation; they are taken as linear (see ";
  const std::string info = "info: setting 'hidden_act_fn' = 're\x1blu'\n";
  EXPECT_EQ(openFile(path).messages, info + "Warning: '" + path + "'" + why + "hiddenActFn)\n");
  OpenOptions options;
  options.optionWords = "--activation";
  options.fileWords = "the network";
  EXPECT_EQ(openFile(path, options).messages,
            info + "Warning: the network" + why + "--activation)\n");
}

TEST(ModelFile, leavesRecordedActivationsAlone) {
  const std::string recorded = text(kVersion2, "");
  EXPECT_EQ(openBytes(recorded).activations(), "tanh tanh tanh");
  EXPECT_EQ(openBytes(recorded).messages, "");
  const Opened opened = openBytes(recorded, withActFn("elu"));
  EXPECT_EQ(opened.result, 0);
  EXPECT_EQ(opened.activations(), "tanh tanh tanh");
  EXPECT_EQ(opened.messages,
            "Warning: hiddenActFn changes nothing: the model records the activation of every "
            "hidden layer\n");
}

TEST(ModelFile, anImageRecordsTheActivationOfBatchNormLayers) {
  const Opened opened = openBytes(image());
  EXPECT_EQ(opened.activations(), "sigmoid sigmoid sigmoid");
  EXPECT_EQ(opened.messages.find("activation"), std::string::npos);
}

TEST(ModelFile, readingAloneSetsNothing) {
  const std::string content = text(kVersion1, "# NVP hidden_act_fn relu\n");
  Opened read;
  read.messages =
      stderrOf([&] { read.result = mlnn::readModel(content.data(), content.size(), read.file); });
  EXPECT_EQ(read.result, 0);
  EXPECT_EQ(read.activations(), "linear linear linear");
  EXPECT_EQ(read.messages, "info: setting 'hidden_act_fn' = 'relu'\n");
  const std::vector<NNLayer*>& layers = read.file.model.layers;
  EXPECT_EQ(mlnn::layersWithoutActivation(read.file),
            (std::vector<NNLayer*>{layers[0], layers[1]}));
  stderrOf([&] { mlnn::setHiddenActivations(read.file); });
  EXPECT_EQ(read.activations(), "relu relu linear");
}

// Both formats, longer than what is read between two looks.
TEST(ModelFile, isReadUnderAWatchAsWithoutOneAndStopsWhereItThrows) {
  MultiLayerNNModel model = mlnn::test::modelOf({mlnn::test::plainLayer(900, 1000, 1)});
  model.deltasNorm.allocIfNeeded();
  std::string whyNot;
  const std::vector<char> made = mlnn::imageOf(model, whyNot).value();
  std::ostringstream written;
  mlnn::writeText(model, mlnn::kExactDigits, written);
  for (const std::string& bytes : {std::string(made.begin(), made.end()), written.str()}) {
    std::size_t told = 0;
    ModelFile file;
    ASSERT_EQ(mlnn::readModel(bytes.data(), bytes.size(), file,
                              [&told](std::size_t steps) { told += steps; }),
              0);
    EXPECT_TRUE(mlnn::test::sameLayers(file.model, model));
    EXPECT_GT(told, bytes.size() - (std::size_t{1} << 18));
    const auto stops = [&told](std::size_t steps) {
      if (told < steps) throw std::out_of_range("enough");
      told -= steps;
    };
    told = std::size_t{1} << 20;
    stderrOf([&] {
      EXPECT_THROW(mlnn::readModel(bytes.data(), bytes.size(), file, stops), std::out_of_range);
    });
    EXPECT_EQ(told, 0U);  // it was not called again
  }
}

TEST(ModelFile, missingLayersAreNoHiddenLayers) {
  ModelFile file;
  file.textVersion = 1;
  file.model.layers.assign(3, nullptr);
  EXPECT_TRUE(mlnn::layersWithoutActivation(file).empty());
  EXPECT_TRUE(mlnn::layersWithoutActivation(ModelFile()).empty());
}

// --- Refusals ---

TEST(ModelFile, refusesAnActivationThatThereIsNot) {
  const Opened opened = openBytes(text(kVersion1, ""), withActFn("re\nlu"));
  EXPECT_EQ(opened.result, 1);
  EXPECT_EQ(opened.messages,
            "ERROR: openModel: hiddenActFn is 're\\nlu', which is no activation\n");
  EXPECT_TRUE(opened.file.model.layers.empty());
}

TEST(ModelFile, saysWhyAFileCannotBeRead) {
  const TempFolder folder;
  const Opened opened = openFile(folder.path("none"));
  EXPECT_EQ(opened.result, 1);
  EXPECT_EQ(opened.messages,
            "ERROR: MultiLayerNNModel: could not read file: " + folder.path("none") + "\n");
  EXPECT_EQ(stderrOf([&] { EXPECT_EQ(openModel(folder.path("none")), nullptr); }), opened.messages);
}

TEST(ModelFile, saysWhyAModelIsRefused) {
  const std::string noHeader =
      "ERROR: MultiLayerNNModel::deserializeAscii: Invalid neural network model file. Didn't find "
      "expected header on first line.\n";
  const std::map<std::string, std::string> refused = {
      {"", "ERROR: MultiLayerNNModel: Could not read header\n"},
      {"MLN", "ERROR: MultiLayerNNModel: Could not read header\n"},
      {"none", noHeader},
      {"MLNN", "ERROR: openModel: image of 4 bytes is shorter than its head (1004)\n"},
      {"MLNN123", "ERROR: openModel: image of 7 bytes is shorter than its head (1004)\n"},
      {"MLNN1234",
       "ERROR: MultiLayerNNModel::deserializeBinary: image of 8 bytes is shorter than its head "
       "(1004)\n"}};
  const TempFolder folder;
  for (const auto& [content, message] : refused) {
    const Opened fromMemory = openBytes(content);
    EXPECT_EQ(fromMemory.result, 1) << content;
    EXPECT_EQ(fromMemory.messages, message) << content;
    const Opened fromFile = openFile(folder.write("M", content));
    EXPECT_EQ(fromFile.result, 1) << content;
    EXPECT_EQ(fromFile.messages, message) << content;
  }
  EXPECT_EQ(openFile(folder.path()).messages, noHeader);  // a folder
}

TEST(ModelFile, setsNoActivationsInAModelThatIsRefused) {
  const std::string content = text(kVersion1, "# NVP hidden_act_fn relu\n");
  const Opened opened = openBytes(content.substr(0, content.size() - 2));
  EXPECT_EQ(opened.result, 1);
  EXPECT_EQ(opened.messages.find("activation"), std::string::npos);
}

// --- The sample ---

// The class with the largest sum of log posteriors.
std::string decisionOf(MultiLayerNNModel& model, const Eigen::MatrixXf& frames) {
  std::string whyNot;
  const auto window = mlnn::ContextWindow::create(model.featureDesc, model.deltasNorm,
                                                  static_cast<int>(frames.rows()), whyNot);
  Eigen::MatrixXf inputs, posteriors;
  window->stack(frames, inputs);
  const std::unique_ptr<NNFwdPassFromFile> pass(model.createFwdPass());
  EXPECT_EQ(pass->evaluate(inputs, posteriors), 0);
  Eigen::Index best;
  posteriors.array().log().rowwise().sum().maxCoeff(&best);
  return std::to_string(best);
}

int wordsRight(const std::string& name) {
  std::unique_ptr<MultiLayerNNModel> model;
  stderrOf([&] { model = openModel(sourcePath("examples/digits/" + name)); });
  if (!model) return -1;
  std::ifstream labels(sourcePath("examples/digits/labels.csv"));
  std::string line;
  std::getline(labels, line);
  int right = 0;
  while (std::getline(labels, line)) {
    std::istringstream fields(line);
    std::string file, label;
    std::getline(std::getline(fields, file, ','), label, ',');
    const Eigen::MatrixXf frames =
        mlnn::test::readNpyFloats(sourcePath("examples/digits/frames/" + file));
    right += decisionOf(*model, frames) == label;
  }
  return right;
}

TEST(ModelFile, theSampleNetworksKnowTheWordsThatTheToolGets) {
  EXPECT_EQ(wordsRight("synth.txt"), 28);
  EXPECT_EQ(wordsRight("synth-bn.txt"), 29);
}

}  // namespace
