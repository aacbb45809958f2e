#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cfloat>
#include <chrono>
#include <cmath>
#include <cstring>
#include <limits>
#include <locale>
#include <new>
#include <random>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "model/MultiLayerNNModel.h"
#include "tests/support/AllocationWatch.h"
#include "tests/support/CaptureStderr.h"
#include "tests/support/ModelDifference.h"
#include "tests/support/PieceBuffer.h"

namespace {

using mlnn::test::AllocationWatch;
using mlnn::test::FailingAllocation;
using mlnn::test::firstDifference;
using mlnn::test::kCanFailAllocations;
using mlnn::test::PieceBuffer;
using mlnn::test::stderrOf;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;

const std::string kHead = "MultiLayerNNModel_v2\nsoftmax 1\n";
const std::string kNoLayers = "num_layers 0\n";
const std::string kOneLayer = "num_layers 1\nlayer 1 size 1 2\nact_fn relu\n1\t2\n";

std::string error(const std::string& detail) {
  return "ERROR: MultiLayerNNModel::deserializeAscii: " + detail + "\n";
}

std::string valuesOf(int count) {
  std::string values;
  for (int i = 0; i < count; ++i) values += (i == 0 ? "" : ",") + std::to_string(i) + ".5";
  return values;
}

std::vector<float> row(const NNLayer& layer, Eigen::Index r) {
  std::vector<float> values;
  for (Eigen::Index c = 0; c < layer.weights.cols(); ++c) values.push_back(layer.weights(r, c));
  return values;
}

std::vector<float> entries(const Eigen::VectorXf& vector) {
  return std::vector<float>(vector.data(), vector.data() + vector.size());
}

// A model, and what reading into it gave.
class MultiLayerNNModelAsciiReader : public testing::Test {
 protected:
  // Reads from a stream and keeps what is printed in `messages`.
  int readStream(std::istream& in) {
    int result = -1;
    messages = stderrOf([&] { result = model.deserializeAscii(in); });
    return result;
  }

  int read(const std::string& text) {
    std::istringstream in(text);
    return readStream(in);
  }

  // Reads from a stream that never has more than a few characters at hand.
  int readInPieces(const std::string& text) {
    constexpr std::size_t kPiece = 64;
    PieceBuffer buffer(text, kPiece);
    std::istream in(&buffer);
    return readStream(in);
  }

  // Reads note lines in front of a file without layers.
  int readNotes(const std::string& lines) { return read(kHead + lines + kNoLayers); }

  // Starts over with a new model.
  void renew() { model = MultiLayerNNModel(); }

  // Reads into a new model and expects this error and nothing else.
  void expectRefused(const std::string& text, const std::string& detail) {
    renew();
    EXPECT_EQ(read(text), 1) << text;
    EXPECT_EQ(messages, error(detail)) << text;
  }

  void expectAccepted(const std::string& text) {
    renew();
    EXPECT_EQ(read(text), 0) << text;
    EXPECT_EQ(messages, "") << text;
  }

  // How many entries of the stack hold a layer, and how many there are.
  void expectStack(std::size_t present, std::size_t size) {
    ASSERT_EQ(model.layers.size(), size);
    for (std::size_t i = 0; i < size; ++i) EXPECT_EQ(model.layers[i] != nullptr, i < present) << i;
  }

  MultiLayerNNModel model;
  std::string messages;
};

// --- Header ---

TEST_F(MultiLayerNNModelAsciiReader, refusesAnyOtherFirstLine) {
  for (const std::string line :
       {"", "\n", "MLNN\n", "MultiLayerNNModel_v3\n", "MultiLayerNNModel_v2 \n",
        "MultiLayerNNModel \n", " MultiLayerNNModel\n", "multilayernnmodel\n",
        "MultiLayerNNModel_v2\r\nsoftmax 1\r\nnum_layers 0\r\n", "\nMultiLayerNNModel\n",
        "\xef\xbb\xbfMultiLayerNNModel\nnum_layers 0\n"}) {
    expectRefused(line,
                  "Invalid neural network model file. Didn't find expected header on first line.");
    EXPECT_THAT(model.layers, IsEmpty());
  }
}

TEST_F(MultiLayerNNModelAsciiReader, resetsOptionsAndLayersBeforeItReads) {
  model.layers = {new NNLayer(2, 3, false), nullptr, new NNLayer(3, 4, true)};
  model.featureDesc.winSizeLeft = 1;
  model.featureDesc.winSizeRight = 2;
  model.featureDesc.lineKernelWidth = 3;
  model.featureDesc.featType = 4;
  model.featureDesc.reserved = 5;
  model.featureDesc.useDeltas = false;
  model.featureDesc.useLineKernels = true;
  model.featureDesc.numBands = 6;
  EXPECT_EQ(read(""), 1);
  EXPECT_THAT(model.layers, IsEmpty());
  EXPECT_EQ(model.featureDesc.winSizeLeft, 7);
  EXPECT_EQ(model.featureDesc.winSizeRight, 7);
  EXPECT_EQ(model.featureDesc.lineKernelWidth, 0);
  EXPECT_EQ(model.featureDesc.featType, 4);
  EXPECT_EQ(model.featureDesc.reserved, 5);
  EXPECT_TRUE(model.featureDesc.useDeltas);
  EXPECT_FALSE(model.featureDesc.useLineKernels);
  EXPECT_EQ(model.featureDesc.numBands, 6);
}

TEST_F(MultiLayerNNModelAsciiReader, keepsAllElseUnlessTheFileSetsIt) {
  model.loss = {1.0f};
  model.accuracy = {2.0f};
  model.props = {{"key", "value"}};
  model.notes.lines = {"note"};
  model.deltasNorm.minvals = Eigen::VectorXf::Constant(3, 3.0f);
  model.useSoftmax = false;
  EXPECT_EQ(read("MultiLayerNNModel\nnum_layers 0\n"), 0);
  EXPECT_EQ(messages, "");
  EXPECT_THAT(model.loss, ElementsAre(1.0f));
  EXPECT_THAT(model.accuracy, ElementsAre(2.0f));
  EXPECT_THAT(model.props, ElementsAre(Pair("key", "value")));
  EXPECT_THAT(model.notes.lines, ElementsAre("note"));
  EXPECT_THAT(entries(model.deltasNorm.minvals), ElementsAre(3.0f, 3.0f, 3.0f));
  EXPECT_EQ(model.deltasNorm.normvals.size(), 0);
  EXPECT_FALSE(model.useSoftmax);
}

// --- Softmax ---

TEST_F(MultiLayerNNModelAsciiReader, takesSoftmaxFromItsLine) {
  const std::vector<std::pair<std::string, bool>> cases = {
      {"softmax 1", true},    {"softmax 0", false},         {"softmax 2", true},
      {"softmax -1", true},   {"softmax", false},           {"softmax x", false},
      {"softmax 0x1", false}, {" softmax\t1", true},        {"softmax 1 more words", true},
      {"softmax 1\r", true},  {"softmax 99999999999", true}};
  for (const auto& [line, expected] : cases) {
    renew();
    model.useSoftmax = !expected;
    EXPECT_EQ(read("MultiLayerNNModel_v2\n" + line + "\nnum_layers 0\n"), 0) << line;
    EXPECT_EQ(messages, "") << line;
    EXPECT_EQ(model.useSoftmax, expected) << line;
  }
}

TEST_F(MultiLayerNNModelAsciiReader, refusesVersion2WithoutSoftmaxLine) {
  for (const std::string rest : {"", "\n", "\nsoftmax 1\n", "softmax1\n", "Softmax 1\n",
                                 "1 softmax\n", "num_layers 0\n", "# note\nsoftmax 1\n"}) {
    for (const bool before : {false, true}) {
      renew();
      model.useSoftmax = before;
      EXPECT_EQ(read("MultiLayerNNModel_v2\n" + rest), 1) << rest;
      EXPECT_EQ(messages, error("Expected to find 'softmax' in a version 2 model file")) << rest;
      EXPECT_EQ(model.useSoftmax, before);
      EXPECT_THAT(model.notes.lines, IsEmpty());
    }
  }
}

TEST_F(MultiLayerNNModelAsciiReader, version1HasNeitherSoftmaxNorActivationLines) {
  model.useSoftmax = false;
  EXPECT_EQ(read("MultiLayerNNModel\n# a note\nloss 1\n0.5\nnum_layers 2\n"
                 "layer 1 size 2 2\n1\t2\n3\t4\n"
                 "batch_norm_layer 2 size 1 2\n5\t6\ngamma_beta\n7\t8\t9\t10\n"),
            0);
  EXPECT_EQ(messages, "");
  EXPECT_FALSE(model.useSoftmax);
  expectStack(2, 2);
  EXPECT_EQ(model.layers[0]->actFn, ActFn::linear);
  EXPECT_FALSE(model.layers[0]->isBatchNorm);
  EXPECT_THAT(entries(model.layers[0]->bias), ElementsAre(1.0f, 3.0f));
  EXPECT_THAT(row(*model.layers[0], 1), ElementsAre(4.0f));
  EXPECT_TRUE(model.layers[1]->isBatchNorm);
  EXPECT_THAT(row(*model.layers[1], 0), ElementsAre(5.0f, 6.0f));
}

TEST_F(MultiLayerNNModelAsciiReader, version1RefusesWhatOnlyVersion2Has) {
  expectRefused("MultiLayerNNModel\nsoftmax 1\nnum_layers 0\n",
                "expected 'num_layers' but found 'softmax'");
  expectRefused("MultiLayerNNModel\n" + kOneLayer, "unexpected extra data at end of file: ''");
  expectStack(1, 1);
  EXPECT_THAT(entries(model.layers[0]->bias), ElementsAre(0.0f));
}

// --- Note lines ---

TEST_F(MultiLayerNNModelAsciiReader, storesNoteLinesInOrder) {
  EXPECT_EQ(readNotes("# one\n#two\n#\n# \n#  three \n# four\r\n"), 0);
  EXPECT_EQ(messages, "");
  EXPECT_THAT(model.notes.lines, ElementsAre("one", "#two", "#", "", " three ", "four\r"));
}

TEST_F(MultiLayerNNModelAsciiReader, addsNotesAgainWhenAFileIsReadAgain) {
  EXPECT_EQ(readNotes("# one\n"), 0);
  EXPECT_EQ(readNotes("# one\n"), 0);
  EXPECT_THAT(model.notes.lines, ElementsAre("one", "one"));
}

TEST_F(MultiLayerNNModelAsciiReader, noteLineMustBeginWithTheSign) {
  expectRefused(kHead + " # note\n" + kNoLayers, "expected 'num_layers' but found '#'");
  expectRefused(kHead + "\n# note\n" + kNoLayers, "expected 'num_layers' but found '#'");
  EXPECT_THAT(model.notes.lines, IsEmpty());
}

TEST_F(MultiLayerNNModelAsciiReader, refusesNoteLinesBesideTheCurves) {
  expectRefused(kHead + "loss 1\n0.5\n# note\n" + kNoLayers, "expected 'num_layers' but found '#'");
  EXPECT_THAT(model.loss, ElementsAre(0.5f));
  EXPECT_THAT(model.notes.lines, IsEmpty());
  expectRefused(kHead + "accuracy 1\n0.5\n# note\n" + kNoLayers,
                "expected 'num_layers' but found '#'");
}

TEST_F(MultiLayerNNModelAsciiReader, takesALastNoteLineWithoutLineFeed) {
  expectRefused(kHead + "# note", "expected 'num_layers' but found ''");
  EXPECT_THAT(model.notes.lines, ElementsAre("note"));
}

TEST_F(MultiLayerNNModelAsciiReader, takesProperties) {
  EXPECT_EQ(readNotes("# NVP alpha 1 2\n# NVP beta  two blanks\n# NVP gamma \n# NVP tab\tx y\n"
                      "# NVP alpha 3\n"),
            0);
  EXPECT_EQ(messages,
            "info: setting 'alpha' = '1 2'\n"
            "info: setting 'beta' = ' two blanks'\n"
            "info: setting 'gamma' = ''\n"
            "info: setting 'tab\tx' = 'y'\n"
            "info: setting 'alpha' = '3'\n");
  EXPECT_THAT(model.props, ElementsAre(Pair("alpha", "3"), Pair("beta", " two blanks"),
                                       Pair("gamma", ""), Pair("tab\tx", "y")));
  EXPECT_THAT(model.notes.lines, IsEmpty());
}

TEST_F(MultiLayerNNModelAsciiReader, propertyWithoutValueGetsTheWholeLine) {
  EXPECT_EQ(readNotes("# NVP alpha\n# NVP \n# NVP  x\n# NVP\n"), 0);
  EXPECT_EQ(messages,
            "info: setting 'alpha' = '# NVP alpha'\n"
            "info: setting '' = '# NVP '\n"
            "info: setting '' = 'x'\n");
  EXPECT_THAT(model.props, ElementsAre(Pair("", "x"), Pair("alpha", "# NVP alpha")));
  EXPECT_THAT(model.notes.lines, ElementsAre("NVP"));
}

TEST_F(MultiLayerNNModelAsciiReader, propertyLineGoesOnToOptionsButNotToNormalisation) {
  EXPECT_EQ(readNotes("# NVP a nn_tune comment -win_size_left 3\n"
                      "# NVP b deltas_norm_minvals deltas_norm_normvals\n"),
            0);
  EXPECT_EQ(messages,
            "info: setting 'a' = 'nn_tune comment -win_size_left 3'\n"
            "info: setting 'b' = 'deltas_norm_minvals deltas_norm_normvals'\n");
  EXPECT_EQ(model.featureDesc.winSizeLeft, 3);
  EXPECT_EQ(model.deltasNorm.minvals.size(), 0);
  EXPECT_EQ(model.deltasNorm.normvals.size(), 0);
}

TEST_F(MultiLayerNNModelAsciiReader, propertyLineCanCarryTheFeatureDescription) {
  EXPECT_EQ(readNotes("# NVP a nn_tune feat_desc mel_deltas:bands=0,left=1,right=2,deltas=0,"
                      "line_kernels=0,line_kernel_width=0\n"),
            0);
  EXPECT_EQ(messages,
            "info: setting 'a' = 'nn_tune feat_desc mel_deltas:bands=0,left=1,right=2,deltas=0,"
            "line_kernels=0,line_kernel_width=0'\n"
            "info: NNModel::deserialize: feat_desc mel_deltas:bands=0,left=1,right=2,deltas=0,"
            "line_kernels=0,line_kernel_width=0\n");
  EXPECT_EQ(model.featureDesc.winSizeRight, 2);
}

// --- Normalisation ---

TEST_F(MultiLayerNNModelAsciiReader, takesNormalisationValuesInOrder) {
  EXPECT_EQ(readNotes("# TRAIN rbm_train x y -deltas_norm_minvals " + valuesOf(120) + " more\n" +
                      "#\tTRAIN \trbm_train x y -deltas_norm_normvals\t\t" + valuesOf(120) + "\n"),
            0);
  EXPECT_EQ(messages, "");
  for (int i = 0; i < 120; ++i) {
    EXPECT_EQ(model.deltasNorm.minvals[i], static_cast<float>(i) + 0.5f);
    EXPECT_EQ(model.deltasNorm.normvals[i], static_cast<float>(i) + 0.5f);
  }
  EXPECT_EQ(model.notes.lines.size(), 2u);
}

TEST_F(MultiLayerNNModelAsciiReader, oneNormalisationLineMakesBothArrays) {
  EXPECT_EQ(readNotes("# TRAIN rbm_train x y -deltas_norm_normvals " + valuesOf(120) + "\n"), 0);
  EXPECT_EQ(model.deltasNorm.minvals, Eigen::VectorXf::Zero(120));
  EXPECT_EQ(model.deltasNorm.normvals[119], 119.5f);
}

TEST_F(MultiLayerNNModelAsciiReader, lineWithBothNamesGoesToMinvals) {
  EXPECT_EQ(readNotes("# TRAIN rbm_train deltas_norm_normvals y -deltas_norm_minvals " +
                      valuesOf(120) + "\n"),
            0);
  EXPECT_EQ(model.deltasNorm.minvals[1], 1.5f);
  EXPECT_EQ(model.deltasNorm.normvals, Eigen::VectorXf::Ones(120));
}

TEST_F(MultiLayerNNModelAsciiReader, reportsAWrongNumberOfNormalisationValuesAndGoesOn) {
  for (const int count : {1, 119, 121}) {
    renew();
    model.deltasNorm.minvals = Eigen::VectorXf::Constant(120, 0.25f);
    EXPECT_EQ(readNotes("# TRAIN rbm_train x y deltas_norm_minvals " + valuesOf(count) + "\n"), 0);
    EXPECT_EQ(messages, "ERROR: extract_norm_params: did not find 120 values, found " +
                            std::to_string(count) + " instead\n");
    EXPECT_EQ(model.deltasNorm.minvals, Eigen::VectorXf::Constant(120, 0.25f));
    EXPECT_EQ(model.deltasNorm.normvals, Eigen::VectorXf::Ones(120));
  }
}

TEST_F(MultiLayerNNModelAsciiReader, dropsEmptyNormalisationValues) {
  EXPECT_EQ(readNotes("# TRAIN rbm_train x y deltas_norm_minvals ,," + valuesOf(120) + ",\n" +
                      "# TRAIN rbm_train x y deltas_norm_minvals ,,\n"),
            0);
  EXPECT_EQ(messages, "ERROR: extract_norm_params: did not find 120 values, found 0 instead\n");
  EXPECT_EQ(model.deltasNorm.minvals[119], 119.5f);
}

TEST_F(MultiLayerNNModelAsciiReader, reportsOtherLinesThatNameTheNormalisationAndGoesOn) {
  for (const std::string line :
       {"#TRAIN rbm_train x y deltas_norm_minvals 1", "# Train rbm_train x y deltas_norm_minvals 1",
        "# TRAIN rbm x y deltas_norm_minvals 1", "# TRAIN rbm_train x deltas_norm_minvals",
        "# TRAIN rbm_train x y deltas_norm_minvals", "# deltas_norm_minvals",
        "#deltas_norm_normvals", "# TRAIN rbm_train deltas_norm_normvals 1,2"}) {
    renew();
    EXPECT_EQ(readNotes(line + "\n# next\n"), 0) << line;
    EXPECT_EQ(messages, "ERROR: extract_norm_params: could not parse line\n") << line;
    EXPECT_EQ(model.deltasNorm.minvals, Eigen::VectorXf::Zero(120));
    EXPECT_EQ(model.deltasNorm.normvals, Eigen::VectorXf::Ones(120));
    EXPECT_EQ(model.notes.lines.size(), 2u);
  }
}

TEST_F(MultiLayerNNModelAsciiReader, convertsEachNormalisationValueByItself) {
  const std::vector<std::pair<std::string, float>> values = {
      {"1.5e-3", 0.0015f}, {"a", 0.0f},       {"2x", 2.0f},       {"-0", -0.0f},
      {"0x10", 16.0f},     {"inf", INFINITY}, {"1e99", INFINITY}, {".5", 0.5f}};
  std::string line = "# TRAIN rbm_train x y deltas_norm_minvals ";
  for (const auto& value : values) line += value.first + ",";
  EXPECT_EQ(readNotes(line + valuesOf(112) + "\n"), 0);
  EXPECT_EQ(messages, "");
  for (std::size_t i = 0; i < values.size(); ++i) {
    const float stored = model.deltasNorm.minvals[static_cast<Eigen::Index>(i)];
    EXPECT_EQ(stored, values[i].second) << values[i].first;
    EXPECT_EQ(std::signbit(stored), std::signbit(values[i].second)) << values[i].first;
  }
  EXPECT_EQ(model.deltasNorm.minvals[119], 111.5f);
}

TEST_F(MultiLayerNNModelAsciiReader, normalisationLineIsNoOptionLine) {
  EXPECT_EQ(readNotes("# TRAIN rbm_train nn_tune comment -win_size_left " + valuesOf(120) +
                      " deltas_norm_minvals nn_tune comment -win_size_left 3\n"),
            0);
  EXPECT_EQ(messages, "");
  EXPECT_EQ(model.deltasNorm.minvals[1], 1.5f);
  EXPECT_EQ(model.featureDesc.winSizeLeft, 7);
}

// --- Options ---

TEST_F(MultiLayerNNModelAsciiReader, takesOneOptionALine) {
  EXPECT_EQ(readNotes("# nn_tune comment -deltas 0\n# nn_tune comment -win_size_left 2.9\n"
                      "# nn_tune comment -win_size_right -2.9\n"
                      "# nn_tune comment -linekernels 3\n"),
            0);
  EXPECT_EQ(messages, "");
  EXPECT_FALSE(model.featureDesc.useDeltas);
  EXPECT_EQ(model.featureDesc.winSizeLeft, 2);
  EXPECT_EQ(model.featureDesc.winSizeRight, -2);
  EXPECT_EQ(model.featureDesc.lineKernelWidth, 5);
  EXPECT_TRUE(model.featureDesc.useLineKernels);
}

// What a description holds after option lines: left, right, line-kernel width, deltas, kernels.
struct Options {
  int left;
  int right;
  int width;
  bool deltas;
  bool kernels;
};

TEST_F(MultiLayerNNModelAsciiReader, interpretsOptionLines) {
  constexpr int kMax = std::numeric_limits<int>::max();
  constexpr int kMin = std::numeric_limits<int>::min();
  const std::vector<std::pair<std::string, Options>> cases = {
      // The first option in the order of precedence counts, with the line's last word.
      {"nn_tune comment -win_size_left 5 -deltas 0", {7, 7, 0, false, false}},
      {"nn_tune comment -win_size_left 0 -deltas 5", {7, 7, 0, true, false}},
      {"nn_tune comment -linekernels 1 -win_size_right 2 -win_size_left 3", {3, 7, 0, true, false}},
      {"nn_tune comment -linekernels 1 -win_size_right 2", {7, 2, 0, true, false}},
      {"-win_size_left nn_tune comment 4", {4, 7, 0, true, false}},
      {"nn_tune comment -win_size_left 4 words 9", {9, 7, 0, true, false}},
      {"nn_tune comment x-win_size_lefty 4", {4, 7, 0, true, false}},
      // The last word begins after the last blank, which may end the line.
      {"nn_tune comment -win_size_left 4 ", {0, 7, 0, true, false}},
      {"nn_tune comment -win_size_left\t4", {0, 7, 0, true, false}},
      {"nn_tune comment -win_size_left four", {0, 7, 0, true, false}},
      {"nn_tune comment -win_size_left 4four", {4, 7, 0, true, false}},
      {"nn_tune comment -win_size_left", {0, 7, 0, true, false}},
      {"nn_tune comment -win_size_left \t4", {4, 7, 0, true, false}},
      {"nn_tune comment -win_size_left 0x10", {16, 7, 0, true, false}},
      // Lines that are no option lines.
      {"nn_tune  comment -win_size_left 4", {7, 7, 0, true, false}},
      {"nn_tune -win_size_left 4", {7, 7, 0, true, false}},
      {"nn_tune comment win_size_left 4", {7, 7, 0, true, false}},
      {"nn_tune comment 4", {7, 7, 0, true, false}},
      // What an int cannot hold.
      {"nn_tune comment -win_size_left 1e10", {kMax, 7, 0, true, false}},
      {"nn_tune comment -win_size_left -1e10", {kMin, 7, 0, true, false}},
      {"nn_tune comment -win_size_left 2147483520", {2147483520, 7, 0, true, false}},
      {"nn_tune comment -win_size_left 2147483648", {kMax, 7, 0, true, false}},
      {"nn_tune comment -win_size_right inf", {7, kMax, 0, true, false}},
      {"nn_tune comment -win_size_right nan", {7, 0, 0, true, false}},
      // Flags are set by positive values.
      {"nn_tune comment -deltas 1e-30", {7, 7, 0, true, false}},
      {"nn_tune comment -deltas -1", {7, 7, 0, false, false}},
      {"nn_tune comment -deltas nan", {7, 7, 0, false, false}},
      {"nn_tune comment -linekernels 0", {7, 7, -1, true, false}},
      {"nn_tune comment -linekernels 0.4", {7, 7, 0, true, true}},
      {"nn_tune comment -linekernels -3", {7, 7, -7, true, false}},
      {"nn_tune comment -linekernels 16777217", {7, 7, 33554432, true, true}},
      {"nn_tune comment -linekernels 3e38", {7, 7, kMax, true, true}},
      {"nn_tune comment -linekernels nan", {7, 7, 0, true, false}},
  };
  for (const auto& [line, expected] : cases) {
    renew();
    EXPECT_EQ(readNotes("# " + line + "\n"), 0) << line;
    EXPECT_EQ(messages, "") << line;
    EXPECT_THAT(model.notes.lines, ElementsAre(line));
    EXPECT_EQ(model.featureDesc.winSizeLeft, expected.left) << line;
    EXPECT_EQ(model.featureDesc.winSizeRight, expected.right) << line;
    EXPECT_EQ(model.featureDesc.lineKernelWidth, expected.width) << line;
    EXPECT_EQ(model.featureDesc.useDeltas, expected.deltas) << line;
    EXPECT_EQ(model.featureDesc.useLineKernels, expected.kernels) << line;
  }
}

// --- Feature description ---

const std::string kDescription =
    "mel_deltas:bands=1,left=0,right=0,deltas=0,line_kernels=1,line_kernel_width=3";

TEST_F(MultiLayerNNModelAsciiReader, featureDescriptionReplacesAllFields) {
  model.featureDesc.featType = 4;
  model.featureDesc.reserved = 5;
  EXPECT_EQ(read(kHead + "# nn_tune comment -win_size_left 2\n# nn_tune feat_desc " + kDescription +
                 "\n" + kOneLayer),
            0);
  EXPECT_EQ(messages, "info: NNModel::deserialize: feat_desc " + kDescription + "\n");
  EXPECT_EQ(model.featureDesc.winSizeLeft, 0);
  EXPECT_EQ(model.featureDesc.winSizeRight, 0);
  EXPECT_EQ(model.featureDesc.lineKernelWidth, 3);
  EXPECT_EQ(model.featureDesc.featType, 0);
  EXPECT_EQ(model.featureDesc.reserved, 0);
  EXPECT_FALSE(model.featureDesc.useDeltas);
  EXPECT_TRUE(model.featureDesc.useLineKernels);
  EXPECT_EQ(model.featureDesc.numBands, 1);
}

TEST_F(MultiLayerNNModelAsciiReader, afterTheFeatureDescriptionOptionsAndFurtherOnesAreIgnored) {
  EXPECT_EQ(read(kHead + "# feat_desc in any order nn_tune " + kDescription + "\n" +
                 "# nn_tune comment -win_size_left 2\n# nn_tune feat_desc nonsense\n"
                 "# NVP key nn_tune comment -deltas 1\n"
                 "# TRAIN rbm_train x y deltas_norm_minvals 1\n" +
                 kOneLayer),
            0);
  EXPECT_EQ(messages, "info: NNModel::deserialize: feat_desc " + kDescription +
                          "\n"
                          "info: setting 'key' = 'nn_tune comment -deltas 1'\n"
                          "ERROR: extract_norm_params: did not find 120 values, found 1 instead\n");
  EXPECT_EQ(model.featureDesc.winSizeLeft, 0);
  EXPECT_FALSE(model.featureDesc.useDeltas);
  EXPECT_EQ(model.notes.lines.size(), 4u);
}

TEST_F(MultiLayerNNModelAsciiReader, oneLineCanHoldAnOptionAndTheFeatureDescription) {
  EXPECT_EQ(
      read(kHead + "# nn_tune comment -win_size_left feat_desc " + kDescription + "\n" + kOneLayer),
      0);
  EXPECT_EQ(model.featureDesc.winSizeLeft, 0);
  EXPECT_EQ(model.featureDesc.numBands, 1);
}

TEST_F(MultiLayerNNModelAsciiReader, refusesABadFeatureDescription) {
  for (const std::string text : {"", "nonsense", "mel_deltas:bands=1", "\r",
                                 "mel_deltas:bands=1,left=0,right=0,deltas=2,line_kernels=1,"
                                 "line_kernel_width=3"}) {
    renew();
    model.featureDesc.featType = 4;
    EXPECT_EQ(read(kHead + "# nn_tune feat_desc " + text + "\n# unread\n" + kNoLayers), 1);
    EXPECT_EQ(messages, error(" could not deserialize feature description string: " + text));
    EXPECT_THAT(model.notes.lines, ElementsAre("nn_tune feat_desc " + text));
    EXPECT_THAT(model.layers, IsEmpty());
    // The options' values are gone, and so are those that the reader starts with.
    EXPECT_EQ(model.featureDesc.winSizeLeft, 0);
    EXPECT_EQ(model.featureDesc.featType, 0);
    EXPECT_FALSE(model.featureDesc.useDeltas);
  }
}

TEST_F(MultiLayerNNModelAsciiReader, refusesAFeatureDescriptionLineWithoutBlank) {
  expectRefused(kHead + "#nn_tune\tfeat_desc\t" + kDescription + "\n" + kNoLayers,
                " Found feat_desc in model file but could not extract feature description string");
  EXPECT_EQ(model.featureDesc.winSizeLeft, 0);
  EXPECT_FALSE(model.featureDesc.useDeltas);
}

TEST_F(MultiLayerNNModelAsciiReader, refusesALengthThatIsNotTheNumberOfInputs) {
  const std::string info = "info: NNModel::deserialize: feat_desc ";
  const std::string two =
      "mel_deltas:bands=2,left=0,right=0,deltas=0,line_kernels=0,line_kernel_width=0";
  EXPECT_EQ(read(kHead + "# nn_tune feat_desc " + two + "\n" + kOneLayer), 1);
  EXPECT_EQ(messages, info + two + "\n" +
                          error("feature description length (2) does not match number of inputs "
                                "(1)"));
  expectStack(1, 1);
  renew();
  EXPECT_EQ(read(kHead + "# nn_tune feat_desc " + two + "\n" + kNoLayers), 1);
  EXPECT_EQ(messages, info + two + "\n" +
                          error("feature description length (2) does not match number of inputs "
                                "(0)"));
}

TEST_F(MultiLayerNNModelAsciiReader, windowOptionsDoNotStateALengthUnlessTheModelHasBands) {
  EXPECT_EQ(read(kHead + "# nn_tune comment -win_size_left 1\n" + kOneLayer), 0);
  model.featureDesc.numBands = 2;
  EXPECT_EQ(read(kHead + "# nn_tune comment -win_size_left 1\n" + kOneLayer), 1);
  EXPECT_EQ(messages, error("feature description length (54) does not match number of inputs (1)"));
}

// --- Curves and the number of layers ---

TEST_F(MultiLayerNNModelAsciiReader, takesCurves) {
  EXPECT_EQ(read(kHead + "loss 3\n1\t-2.5e-1\n1e3 accuracy\n1 0.5 num_layers 0\n"), 0);
  EXPECT_EQ(messages, "");
  EXPECT_THAT(model.loss, ElementsAre(1.0f, -0.25f, 1000.0f));
  EXPECT_THAT(model.accuracy, ElementsAre(0.5f));
}

TEST_F(MultiLayerNNModelAsciiReader, curvesThatTheFileSetsAreReplaced) {
  model.loss = {1, 2, 3};
  model.accuracy = {4, 5, 6};
  EXPECT_EQ(read(kHead + "loss 1\n9\naccuracy 0\n\n" + kNoLayers), 0);
  EXPECT_THAT(model.loss, ElementsAre(9.0f));
  EXPECT_THAT(model.accuracy, IsEmpty());
}

TEST_F(MultiLayerNNModelAsciiReader, refusesAccuracyBeforeLoss) {
  expectRefused(kHead + "accuracy 1\n0.5\nloss 1\n2\n" + kNoLayers,
                "expected 'num_layers' but found 'loss'");
  EXPECT_THAT(model.accuracy, ElementsAre(0.5f));
  EXPECT_THAT(model.loss, IsEmpty());
  EXPECT_THAT(model.layers, IsEmpty());
}

TEST_F(MultiLayerNNModelAsciiReader, refusesOtherWordsBeforeTheNumberOfLayers) {
  for (const std::string word : {"layers", "Num_layers", "num_layers0", "layer"}) {
    expectRefused(kHead + word + " 0\n", "expected 'num_layers' but found '" + word + "'");
    EXPECT_THAT(model.layers, IsEmpty());
  }
  expectRefused(kHead, "expected 'num_layers' but found ''");
  expectRefused(kHead + "loss 1\n1\nloss 1\n1\n" + kNoLayers,
                "expected 'num_layers' but found 'loss'");
  expectRefused(kHead + "loss 1\n1\t2\n" + kNoLayers, "expected 'num_layers' but found '2'");
}

// What a value that cannot be read leaves, and what it leaves of the values behind it.
TEST_F(MultiLayerNNModelAsciiReader, aBadCurveValueEndsTheReading) {
  const std::vector<std::pair<std::string, float>> cases = {
      {"x", 0.0f},   {"nan", 0.0f},     {"inf", 0.0f},       {"1e", 0.0f},
      {"--1", 0.0f}, {"1e99", FLT_MAX}, {"-1e99", -FLT_MAX}, {"3.5e38", FLT_MAX}};
  for (const auto& [text, left] : cases) {
    renew();
    model.loss = {1, 2, 3};
    EXPECT_EQ(read(kHead + "loss 4\n5\t" + text + "\t6\t7\n" + kNoLayers), 1) << text;
    EXPECT_EQ(messages, error("expected 'num_layers' but found ''")) << text;
    EXPECT_THAT(model.loss, ElementsAre(5.0f, left, 3.0f, 0.0f)) << text;
    EXPECT_THAT(model.layers, IsEmpty());
  }
}

TEST_F(MultiLayerNNModelAsciiReader, takesWhatTheStreamTakesForANumber) {
  expectAccepted(kHead + "loss 9\n+1 .5 5. 1E2 007 -0 1e-50 1e-45 3.4028235e38\n" + kNoLayers);
  EXPECT_THAT(model.loss, ElementsAre(1.0f, 0.5f, 5.0f, 100.0f, 7.0f, -0.0f, 0.0f,
                                      std::numeric_limits<float>::denorm_min(), FLT_MAX));
  EXPECT_TRUE(std::signbit(model.loss[5]));
}

TEST_F(MultiLayerNNModelAsciiReader, aNumberEndsWhereItsSyntaxDoes) {
  expectRefused(kHead + "loss 2\n0x1 2\n" + kNoLayers, "expected 'num_layers' but found ''");
  EXPECT_THAT(model.loss, ElementsAre(0.0f, 0.0f));
  expectAccepted(kHead + "loss 2\n1.5.25\n" + kNoLayers);
  EXPECT_THAT(model.loss, ElementsAre(1.5f, 0.25f));
  expectAccepted(kHead + "loss 2.25 3num_layers 0\n");
  EXPECT_THAT(model.loss, ElementsAre(0.25f, 3.0f));
}

TEST_F(MultiLayerNNModelAsciiReader, aMissingCountIsZero) {
  expectRefused(kHead + "loss x\n" + kNoLayers, "expected 'num_layers' but found ''");
  EXPECT_THAT(model.loss, IsEmpty());
  expectRefused(kHead + "num_layers x\n", "unexpected extra data at end of file: ''");
  expectRefused(kHead + "num_layers", "unexpected end of input after reading all layers");
  expectRefused(kHead + "num_layers\n", "unexpected end of input after reading all layers");
}

TEST_F(MultiLayerNNModelAsciiReader, refusesNegativeCounts) {
  model.loss = {1, 2};
  EXPECT_EQ(read(kHead + "loss -1\n" + kNoLayers), 1);
  EXPECT_EQ(messages, error("invalid count -1 after 'loss'"));
  EXPECT_THAT(model.loss, ElementsAre(1.0f, 2.0f));
  model.accuracy = {3, 4};
  EXPECT_EQ(read(kHead + "loss 1\n9\naccuracy -2147483648\n" + kNoLayers), 1);
  EXPECT_EQ(messages, error("invalid count -2147483648 after 'accuracy'"));
  EXPECT_THAT(model.loss, ElementsAre(9.0f));
  EXPECT_THAT(model.accuracy, ElementsAre(3.0f, 4.0f));
  EXPECT_EQ(read(kHead + "num_layers -99999999999\n"), 1);
  EXPECT_EQ(messages, error("invalid count -2147483648 after 'num_layers'"));
  EXPECT_THAT(model.layers, IsEmpty());
}

// --- Layers ---

TEST_F(MultiLayerNNModelAsciiReader, takesPlainAndBatchNormLayers) {
  expectAccepted(
      kHead +
      "num_layers 2\nlayer 1 size 2 4\nact_fn tanh\n1\t2\t3\t4\n5\t6\t7\t8\n"
      "batch_norm_layer 2 size 2 2\n1\t2\n3\t4\ngamma_beta\n5\t6\t7\t8\n9\t10\t11\t12\n");
  expectStack(2, 2);
  const NNLayer& plain = *model.layers[0];
  EXPECT_FALSE(plain.isBatchNorm);
  EXPECT_EQ(plain.actFn, ActFn::tanh);
  EXPECT_THAT(entries(plain.bias), ElementsAre(1.0f, 5.0f));
  EXPECT_THAT(row(plain, 0), ElementsAre(2.0f, 3.0f, 4.0f));
  EXPECT_THAT(row(plain, 1), ElementsAre(6.0f, 7.0f, 8.0f));
  EXPECT_EQ(plain.gamma.size(), 0);
  const NNLayer& batchNorm = *model.layers[1];
  EXPECT_TRUE(batchNorm.isBatchNorm);
  EXPECT_EQ(batchNorm.actFn, ActFn::linear);
  EXPECT_THAT(row(batchNorm, 0), ElementsAre(1.0f, 2.0f));
  EXPECT_THAT(row(batchNorm, 1), ElementsAre(3.0f, 4.0f));
  EXPECT_THAT(entries(batchNorm.gamma), ElementsAre(5.0f, 9.0f));
  EXPECT_THAT(entries(batchNorm.beta), ElementsAre(6.0f, 10.0f));
  EXPECT_THAT(entries(batchNorm.gamma_inf), ElementsAre(7.0f, 11.0f));
  EXPECT_THAT(entries(batchNorm.beta_inf), ElementsAre(8.0f, 12.0f));
  EXPECT_THAT(entries(batchNorm.bias), ElementsAre(0.0f, 0.0f));
}

TEST_F(MultiLayerNNModelAsciiReader, blanksTabsAndLineFeedsAreInterchangeableBetweenTokens) {
  expectAccepted(kHead +
                 "\n loss\n2 1 \n\n2\tnum_layers\t2 layer\n1\tsize\n1 2\n"
                 "act_fn \t relu\n\n\n1\n2 layer 2 size 1 1\n\tact_fn elu \n3 \n\t\n");
  expectStack(2, 2);
  EXPECT_THAT(row(*model.layers[0], 0), ElementsAre(2.0f));
  EXPECT_EQ(model.layers[1]->actFn, ActFn::elu);
  EXPECT_THAT(entries(model.layers[1]->bias), ElementsAre(3.0f));
}

TEST_F(MultiLayerNNModelAsciiReader, takesEveryActivation) {
  for (int32_t code = 0; code < ActFn::kCount; ++code) {
    const auto fn = static_cast<ActFn::ActFn>(code);
    expectAccepted(kHead + "num_layers 1\nlayer 1 size 0 1\nact_fn " + ActFn::actFnToString(fn) +
                   "\n");
    EXPECT_EQ(model.layers[0]->actFn, fn);
  }
}

TEST_F(MultiLayerNNModelAsciiReader, activationMayStandOnTheSizeLine) {
  expectAccepted(kHead + "num_layers 1\nlayer 1 size 1 2 act_fn relu\n1\t2\n");
  EXPECT_EQ(model.layers[0]->actFn, ActFn::relu);
  expectAccepted(kHead + "num_layers 1\nlayer 1 size 1 2act_fn relu ignored words\n1\t2\n");
  EXPECT_EQ(model.layers[0]->actFn, ActFn::relu);
}

TEST_F(MultiLayerNNModelAsciiReader, refusesOtherWordsInPlaceOfActFn) {
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"\n1\t2\n", "1"},
      {" \nact_fn relu\n1\t2\n", ""},
      {"\t\nact_fn relu\n1\t2\n", ""},
      {"\r\nact_fn relu\r\n1\t2\r\n", ""},
      {"\n\nact_fn relu\n1\t2\n", ""},
      {" 3\nact_fn relu\n", "3"},
      {"\nAct_fn relu\n", "Act_fn"},
      {"\nact_fn: relu\n", "act_fn:"},
      {"# note\nact_fn relu\n", "#"},
      {"\n", ""},
      {"", ""},
      {".5\nact_fn relu\n", ".5"}};
  for (const auto& [rest, word] : cases) {
    expectRefused(kHead + "num_layers 2\nlayer 1 size 1 2" + rest,
                  "Expected to find 'act_fn' in a version 2 model file, found '" + word + "'");
    expectStack(1, 2);
    EXPECT_EQ(model.layers[0]->weights.cols(), 1);
    EXPECT_EQ(model.layers[0]->actFn, ActFn::linear);
  }
}

TEST_F(MultiLayerNNModelAsciiReader, refusesUnknownActivations) {
  for (const std::string name : {"swish", "Relu", "", "relu,"}) {
    expectRefused(kHead + "num_layers 2\nlayer 1 size 1 2\nact_fn " + name + "\n1\t2\n",
                  "Unknown activation function in model file: '" + name + "'");
    expectStack(1, 2);
    EXPECT_EQ(model.layers[0]->actFn, ActFn::linear);
    EXPECT_THAT(entries(model.layers[0]->bias), ElementsAre(0.0f));
  }
}

TEST_F(MultiLayerNNModelAsciiReader, refusesOtherWordsInPlaceOfTheLayerKeywords) {
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"Layer 1 size 1 2\n", "'Layer' and 'size'"},
      {"layer 1 sizes 1 2\n", "'layer' and 'sizes'"},
      {"batch_norm_layer 1 1 2\n", "'batch_norm_layer' and '1'"},
      {"\n# a note\nlayer 1 size 1 2\n", "'#' and ''"},
      {"act_fn relu\n", "'act_fn' and ''"},
      {"layer", "'layer' and ''"},
      {"layer one size 1 2\n", "'layer' and ''"},
      {"layer 1", "'layer' and ''"},
      {"\n", "'' and ''"}};
  for (const auto& [rest, found] : cases) {
    expectRefused(kHead + "num_layers 2\n" + rest,
                  "expected either 'layer' or 'batch_norm_layer' and 'size' but found " + found);
    expectStack(0, 2);
  }
}

TEST_F(MultiLayerNNModelAsciiReader, refusesANoteLineOfItsOwnBetweenTwoLayers) {
  expectRefused(kHead + "num_layers 2\nlayer 1 size 1 2\nact_fn relu\n1\t2\n# note\n" +
                    "layer 2 size 1 2\nact_fn relu\n1\t2\n",
                "expected either 'layer' or 'batch_norm_layer' and 'size' but found '#' and "
                "'size'");
  expectStack(1, 2);
  EXPECT_THAT(model.notes.lines, IsEmpty());
}

TEST_F(MultiLayerNNModelAsciiReader, takesNotesThatAreGluedToTheTokenBefore) {
  expectAccepted(
      kHead +
      "num_layers 2# one\n#two nn_tune comment -deltas 0\n# NVP k v\n"
      "layer 1 size 1 2\nact_fn relu\n1\t2#three\nlayer 2 size 1 2\nact_fn relu\n1\t2\n");
  EXPECT_THAT(model.notes.lines, ElementsAre("one", "#two nn_tune comment -deltas 0", "#three"));
  EXPECT_THAT(model.props, IsEmpty());
  EXPECT_TRUE(model.featureDesc.useDeltas);
}

TEST_F(MultiLayerNNModelAsciiReader, aBlankBeforeTheSignMakesItAWord) {
  expectRefused(kHead + "num_layers 1 # note\nlayer 1 size 1 2\n",
                "expected either 'layer' or 'batch_norm_layer' and 'size' but found '#' and ''");
}

// A layer without numbers ends in a line that was read whole, so the next line begins at once.
TEST_F(MultiLayerNNModelAsciiReader, takesNoteLinesAfterALayerWithoutNumbers) {
  expectAccepted(kHead +
                 "num_layers 2\nlayer 1 size 0 3\nact_fn relu\n# one\n# two\n"
                 "batch_norm_layer 2 size 0 0\ngamma_beta\n");
  EXPECT_THAT(model.notes.lines, ElementsAre("one", "two"));
  EXPECT_EQ(model.layers[0]->weights.cols(), 2);
  EXPECT_EQ(model.layers[0]->weights.rows(), 0);
}

TEST_F(MultiLayerNNModelAsciiReader, refusesOtherLayerNumbers) {
  expectRefused(kHead + "num_layers 2\nlayer 2 size 1 2\nact_fn relu\n1\t2\n",
                "expected layer 1 but found 2");
  expectStack(0, 2);
  expectRefused(kHead + "num_layers 2\nlayer 0 size 1 2\n", "expected layer 1 but found 0");
  expectRefused(kHead + "num_layers 2\nlayer -7 size 1 2\n", "expected layer 1 but found -7");
  expectRefused(kHead +
                    "num_layers 2\nlayer 1 size 1 2\nact_fn relu\n1\t2\n"
                    "layer 1 size 1 2\nact_fn relu\n3\t4\n",
                "expected layer 2 but found 1");
  expectStack(1, 2);
  EXPECT_THAT(row(*model.layers[0], 0), ElementsAre(2.0f));
}

TEST_F(MultiLayerNNModelAsciiReader, aFileThatBreaksBetweenTwoLayersGivesTheLayerNumberError) {
  const std::string first = kHead + "num_layers 2\nlayer 1 size 1 2\nact_fn relu\n1\t2\n";
  for (const std::string rest : {"", "layer", "layer ", "layer x size 1 2\n", "\n\n"}) {
    const std::string number = rest == "layer x size 1 2\n" ? "0" : "1";
    expectRefused(first + rest, "expected layer 2 but found " + number);
    expectStack(1, 2);
  }
  expectRefused(kHead + "num_layers 2\nlayer 1 size 1 2\nact_fn relu\n1\tx\n" +
                    "layer 2 size 1 2\nact_fn relu\n1\t2\n",
                "expected layer 2 but found 1");
}

TEST_F(MultiLayerNNModelAsciiReader, whatALayerHeaderLacksStaysAsTheHeaderBeforeHadIt) {
  const std::string first = kHead + "num_layers 2\nlayer 1 size 1 3\nact_fn relu\n1\t2\t3\n";
  const std::string noActivation = "Expected to find 'act_fn' in a version 2 model file, found ''";
  expectRefused(first + "layer 2", noActivation);
  expectStack(2, 2);
  EXPECT_EQ(model.layers[1]->weights.rows(), 1);
  EXPECT_EQ(model.layers[1]->weights.cols(), 2);
  expectRefused(first + "batch_norm_layer 2 size 4\n", "Expecting gamma_beta but found: ");
  EXPECT_EQ(model.layers[1]->weights.rows(), 4);
  EXPECT_EQ(model.layers[1]->weights.cols(), 3);
}

TEST_F(MultiLayerNNModelAsciiReader, whatTheFirstLayerHeaderLacksIsZero) {
  expectRefused(kHead + "num_layers 1\nbatch_norm_layer 1 size",
                "Expecting gamma_beta but found: ");
  expectStack(1, 1);
  EXPECT_EQ(model.layers[0]->weights.rows(), 0);
  EXPECT_EQ(model.layers[0]->weights.cols(), 0);
}

TEST_F(MultiLayerNNModelAsciiReader, refusesNegativeSizesAndPlainLayersWithoutRoomForTheBias) {
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"layer 1 size -1 2", "-1"},
      {"layer 1 size 1 -2", "-2"},
      {"layer 1 size -1 -2", "-1"},
      {"layer 1 size 1 0", "0"},
      {"layer 1 size 0 0", "0"},
      {"layer 1 size 1 x", "0"},
      {"layer 1 size x 1", "0"},
      {"batch_norm_layer 1 size -3 0", "-3"},
      {"batch_norm_layer 1 size 3 -99999999999", "-2147483648"}};
  for (const auto& [line, count] : cases) {
    expectRefused(kHead + "num_layers 1\n" + line + "\nact_fn relu\n1\t2\n",
                  "invalid count " + count + " after 'size'");
    expectStack(0, 1);
  }
  expectRefused(kHead + "num_layers 1\nlayer 2 size -1 2\n", "expected layer 1 but found 2");
}

TEST_F(MultiLayerNNModelAsciiReader, refusesOtherLinesInPlaceOfGammaBeta) {
  const std::string head = kHead + "num_layers 2\nbatch_norm_layer 1 size 1 2\n5\t6";
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"\ngamma_beta \n1\t2\t3\t4\n", "gamma_beta "},
      {"\n gamma_beta\n1\t2\t3\t4\n", " gamma_beta"},
      {"\ngamma_beta\r\n1\t2\t3\t4\n", "gamma_beta\r"},
      {"\n\ngamma_beta\n1\t2\t3\t4\n", ""},
      {"\nGamma_beta\n", "Gamma_beta"},
      {"\n1\t2\t3\t4\n", "1\t2\t3\t4"},
      {"\n", ""},
      {"", ""}};
  for (const auto& [rest, line] : cases) {
    expectRefused(head + rest, "Expecting gamma_beta but found: " + line);
    expectStack(1, 2);
    EXPECT_THAT(row(*model.layers[0], 0), ElementsAre(5.0f, 6.0f));
    EXPECT_THAT(entries(model.layers[0]->gamma), ElementsAre(0.0f));
  }
}

TEST_F(MultiLayerNNModelAsciiReader, ignoresWhatFollowsTheLastWeightOnItsLine) {
  expectAccepted(kHead +
                 "num_layers 1\nbatch_norm_layer 1 size 1 1\n5 and more\ngamma_beta\n1\t2\t3\t4\n");
  EXPECT_THAT(entries(model.layers[0]->beta_inf), ElementsAre(4.0f));
}

// The writer puts one value on the weight line of a unit without inputs; it is not read back.
TEST_F(MultiLayerNNModelAsciiReader, doesNotReadWhatIsWrittenForBatchNormWithoutInputs) {
  expectRefused(kHead + "num_layers 1\nbatch_norm_layer 1 size 1 0\n0\ngamma_beta\n1\t2\t3\t4\n",
                "Expecting gamma_beta but found: 0");
  expectAccepted(kHead + "num_layers 1\nbatch_norm_layer 1 size 1 0\ngamma_beta\n1\t2\t3\t4\n");
  EXPECT_THAT(entries(model.layers[0]->gamma), ElementsAre(1.0f));
}

TEST_F(MultiLayerNNModelAsciiReader, reportsAFileThatEndsWithinTheLayers) {
  expectRefused(kHead + "num_layers 2", "unexpected end of file after reading 0 of 2 layers");
  expectStack(0, 2);
  expectRefused(kHead + "num_layers 2\nlayer 1 size 1 2\nact_fn relu\n1\t2",
                "unexpected end of file after reading 1 of 2 layers");
  expectStack(1, 2);
  EXPECT_THAT(row(*model.layers[0], 0), ElementsAre(2.0f));
  expectRefused(kHead + "num_layers 2\nlayer 1 size 1 2\nact_fn relu\n1\n",
                "unexpected end of file after reading 1 of 2 layers");
  expectStack(1, 2);
}

TEST_F(MultiLayerNNModelAsciiReader, aBadNumberShowsInTheStepsBehindIt) {
  const std::string layer = "layer 1 size 1 4\nact_fn relu\n";
  const std::vector<std::pair<std::string, float>> cases = {
      {"x", 0.0f}, {"nan", 0.0f}, {"-inf", 0.0f}, {"1e99", FLT_MAX}, {"-1e39", -FLT_MAX}};
  for (const auto& [text, left] : cases) {
    expectRefused(kHead + "num_layers 1\n" + layer + "1\t" + text + "\t3\t4\n",
                  "unexpected extra data at end of file: ''");
    expectStack(1, 1);
    EXPECT_THAT(entries(model.layers[0]->bias), ElementsAre(1.0f)) << text;
    EXPECT_THAT(row(*model.layers[0], 0), ElementsAre(left, 0.0f, 0.0f)) << text;
    expectRefused(kHead + "num_layers 2\n" + layer + "1\t" + text + "\t3\t4\n" +
                      "layer 2 size 1 2\nact_fn relu\n1\t2\n",
                  "expected layer 2 but found 1");
    expectStack(1, 2);
  }
  expectRefused(kHead + "num_layers 1\nbatch_norm_layer 1 size 2 1\n1\nx\ngamma_beta\n1 2 3 4\n",
                "Expecting gamma_beta but found: ");
  expectStack(1, 1);
  EXPECT_THAT(row(*model.layers[0], 0), ElementsAre(1.0f));
  expectRefused(
      kHead + "num_layers 1\nbatch_norm_layer 1 size 2 1\n1\n2\ngamma_beta\n1 2 x 4 5 6 7 8\n",
      "unexpected extra data at end of file: ''");
  EXPECT_THAT(entries(model.layers[0]->beta), ElementsAre(2.0f, 0.0f));
}

// --- The end ---

TEST_F(MultiLayerNNModelAsciiReader, refusesALastNumberWithoutWhiteSpaceBehindIt) {
  const std::string expected = "unexpected end of input after reading all layers";
  expectRefused(kHead + "num_layers 0", expected);
  expectRefused(kHead + "num_layers 1\nlayer 1 size 1 2\nact_fn relu\n1\t2", expected);
  expectStack(1, 1);
  EXPECT_THAT(row(*model.layers[0], 0), ElementsAre(2.0f));
  expectRefused(kHead + "num_layers 1\nlayer 1 size 0 2\nact_fn relu", expected);
  expectRefused(kHead + "num_layers 1\nlayer 1 size 1 2\nact_fn relu\n1\n", expected);
  expectAccepted(kHead + "num_layers 1\nlayer 1 size 1 2\nact_fn relu\n1\t2 ");
}

TEST_F(MultiLayerNNModelAsciiReader, takesWhiteSpaceAfterTheLayers) {
  expectAccepted(kHead + "num_layers 0 ");
  expectAccepted(kHead + kNoLayers + " \t\r\n\v\f\n");
  expectAccepted(kHead + kOneLayer + "\n\n");
}

TEST_F(MultiLayerNNModelAsciiReader, refusesAnythingElseAfterTheLayers) {
  expectRefused(kHead + kNoLayers + "more words\n", "unexpected extra data at end of file: 'more'");
  expectRefused(kHead + kOneLayer + "# a note\n", "unexpected extra data at end of file: '#'");
  expectRefused(kHead + kOneLayer + "#note\n", "unexpected extra data at end of file: '#note'");
  expectRefused(kHead + kOneLayer + "3\n", "unexpected extra data at end of file: '3'");
  expectStack(1, 1);
  expectRefused(kHead + "num_layers 0x\n", "unexpected extra data at end of file: 'x'");
}

TEST_F(MultiLayerNNModelAsciiReader, aFurtherWordThatEndsTheFilePasses) {
  expectAccepted(kHead + kOneLayer + "word");
  expectAccepted(kHead + kNoLayers + "#");
}

// --- Streams ---

class CommaNumbers : public std::numpunct<char> {
 protected:
  char do_decimal_point() const override { return ','; }
};

TEST_F(MultiLayerNNModelAsciiReader, readsNumbersByTheStreamsLocale) {
  const std::string layers = "num_layers 1\nlayer 1 size 1 2\nact_fn relu\n";
  std::istringstream commas(kHead + layers + "1,5\t-2,25e1\n");
  commas.imbue(std::locale(std::locale::classic(), new CommaNumbers));
  EXPECT_EQ(readStream(commas), 0);
  EXPECT_THAT(entries(model.layers[0]->bias), ElementsAre(1.5f));
  EXPECT_THAT(row(*model.layers[0], 0), ElementsAre(-22.5f));
  std::istringstream points(kHead + layers + "1.5\t2\n");
  points.imbue(std::locale(std::locale::classic(), new CommaNumbers));
  EXPECT_EQ(readStream(points), 1);
  EXPECT_EQ(messages, error("unexpected extra data at end of file: ''"));
}

TEST_F(MultiLayerNNModelAsciiReader, leavesTheStreamAsExtractionDoes) {
  struct Case {
    std::string text;
    std::ios::iostate state;
  };
  const std::vector<Case> cases = {{kHead + kNoLayers, std::ios::eofbit | std::ios::failbit},
                                   {kHead + kNoLayers + "word", std::ios::eofbit},
                                   {kHead + kNoLayers + "word ", std::ios::goodbit},
                                   {kHead + "num_layers 0", std::ios::eofbit},
                                   {kHead + "num_layers x", std::ios::failbit},
                                   {kHead + "loss 1\nx\n", std::ios::failbit},
                                   {"other\nlines\n", std::ios::goodbit},
                                   {"other", std::ios::eofbit},
                                   {"", std::ios::eofbit | std::ios::failbit}};
  for (const Case& c : cases) {
    std::istringstream in(c.text);
    readStream(in);
    EXPECT_EQ(in.rdstate(), c.state) << c.text;
  }
  std::istringstream in(kHead + kNoLayers + "word rest");
  EXPECT_EQ(readStream(in), 1);
  std::string rest;
  in >> rest;
  EXPECT_EQ(rest, "rest");
}

TEST_F(MultiLayerNNModelAsciiReader, startsWhereTheStreamStands) {
  std::istringstream in("skipped\n" + kHead + kOneLayer);
  in.ignore(8);
  EXPECT_EQ(readStream(in), 0);
  expectStack(1, 1);
}

TEST_F(MultiLayerNNModelAsciiReader, refusesAStreamThatCannotBeRead) {
  std::istringstream in(kHead + kOneLayer);
  in.setstate(std::ios::failbit);
  EXPECT_EQ(readStream(in), 1);
  EXPECT_EQ(messages, error("Invalid neural network model file. Didn't find expected header on "
                            "first line."));
}

// --- After a failure ---

TEST_F(MultiLayerNNModelAsciiReader, aModelThatCouldNotBeReadCanBeUsedAgain) {
  EXPECT_EQ(read(kHead + "num_layers 3\nlayer 1 size 1 2\nact_fn relu\n1\tx\n"), 1);
  expectStack(1, 3);
  const MultiLayerNNModel copy(model);
  EXPECT_EQ(copy.layers.size(), 3u);
  MultiLayerNNModel assigned;
  assigned = model;
  model *= 2.0f;
  model.zeros();
  EXPECT_EQ(model.numInputs(), 1);
  EXPECT_EQ(model.numOutputs(), 0);
  std::ostringstream out;
  EXPECT_EQ(model.serializeAscii(out), 0);
  EXPECT_EQ(read(kHead + kOneLayer), 0);
  expectStack(1, 1);
  EXPECT_THAT(row(*model.layers[0], 0), ElementsAre(2.0f));
}

// --- Sizes that are not to be trusted ---

struct Claim {
  std::string text;
  std::string detail;  // "": accepted
};

std::vector<Claim> absurdClaims() {
  const std::string huge = "2147483647";
  const std::string one = kHead + "num_layers 1\n";
  const std::string noActivation = "Expected to find 'act_fn' in a version 2 model file, found ''";
  const std::string noGamma = "Expecting gamma_beta but found: ";
  const std::string atEnd = "unexpected end of input after reading all layers";
  const std::string noKeyword =
      "expected either 'layer' or 'batch_norm_layer' and 'size' but found '' and ''";
  return {
      {kHead + "loss " + huge + "\n1\t2\n", "expected 'num_layers' but found ''"},
      {kHead + "accuracy " + huge + "\n1\t2\n", "expected 'num_layers' but found ''"},
      {kHead + "num_layers " + huge + "\n", noKeyword},
      {kHead + "num_layers " + huge, "unexpected end of file after reading 0 of 2147483647 layers"},
      {kHead + "num_layers " + huge + "\nlayer 1 size 1 2\nact_fn relu\n1\t2\n",
       "expected layer 2 but found 1"},
      {one + "layer 1 size " + huge + " " + huge + "\n", noActivation},
      {one + "layer 1 size " + huge + " " + huge + "\nact_fn relu\n1\t2\n", atEnd},
      {one + "layer 1 size " + huge + " 1\nact_fn relu\n1\n2\nx\n",
       "unexpected extra data at end of file: ''"},
      {one + "layer 1 size 1 " + huge + "\nact_fn relu\n1\t2\n", atEnd},
      {one + "layer 1 size 65536 65536\nact_fn relu\n1\t2\n", atEnd},
      {one + "layer 1 size 0 " + huge + "\nact_fn relu\n", ""},
      {one + "batch_norm_layer 1 size " + huge + " 0\n", noGamma},
      {one + "batch_norm_layer 1 size " + huge + " 0\ngamma_beta\n1\t2\t3\t4\n", atEnd},
      {one + "batch_norm_layer 1 size " + huge + " " + huge + "\n1\n", noGamma},
      {one + "batch_norm_layer 1 size 1 " + huge + "\n1\n", noGamma},
      {one + "batch_norm_layer 1 size 0 " + huge + "\ngamma_beta\n", ""},
  };
}

TEST_F(MultiLayerNNModelAsciiReader, absurdSizesTakeNeitherMemoryNorTime) {
  for (const Claim& claim : absurdClaims()) {
    renew();
    const auto start = std::chrono::steady_clock::now();
    const AllocationWatch watch;
    EXPECT_EQ(read(claim.text), claim.detail.empty() ? 0 : 1) << claim.text;
    EXPECT_LE(watch.largest(), std::size_t{1} << 20) << claim.text;
    EXPECT_LE(watch.allocations(), 100u) << claim.text;
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(1)) << claim.text;
    EXPECT_EQ(messages, claim.detail.empty() ? "" : error(claim.detail)) << claim.text;
  }
}

TEST_F(MultiLayerNNModelAsciiReader, keepsWhatWasReadOfAnAbsurdCurve) {
  EXPECT_EQ(read(kHead + "loss 2147483647\n1\t2\n"), 1);
  ASSERT_GE(model.loss.size(), 2u);
  EXPECT_EQ(model.loss[0], 1.0f);
  EXPECT_EQ(model.loss[1], 2.0f);
}

// The stack and its layers may be shorter than asked for, but the layer that was read is whole.
TEST_F(MultiLayerNNModelAsciiReader, keepsWhatWasReadOfAnAbsurdStack) {
  EXPECT_EQ(read(kHead + "num_layers 2147483647\nlayer 1 size 1 2\nact_fn relu\n1\t2\n"), 1);
  ASSERT_GE(model.layers.size(), 1u);
  EXPECT_THAT(row(*model.layers[0], 0), ElementsAre(2.0f));
}

std::string text(const MultiLayerNNModel& model) {
  std::ostringstream out;
  out.precision(9);
  model.serializeAscii(out);
  return out.str();
}

// A value of its own for each place, exact in nine digits.
void fillRising(Eigen::Ref<Eigen::MatrixXf> values) {
  for (Eigen::Index r = 0; r < values.rows(); ++r) {
    for (Eigen::Index c = 0; c < values.cols(); ++c) {
      values(r, c) = static_cast<float>(r * values.cols() + c) * 0.125f - 1000.0f;
    }
  }
}

NNLayer* risingLayer(int inputs, int outputs, bool batchNorm) {
  auto* layer = new NNLayer(inputs, outputs, batchNorm);
  fillRising(layer->weights);
  if (!batchNorm) fillRising(layer->bias);
  fillRising(layer->gamma);
  fillRising(layer->beta);
  fillRising(layer->gamma_inf);
  fillRising(layer->beta_inf);
  return layer;
}

TEST_F(MultiLayerNNModelAsciiReader, readsLargeLayersExactly) {
  struct Shape {
    int inputs;
    int outputs;
  };
  for (const Shape shape :
       {Shape{0, 70001}, Shape{1, 70001}, Shape{300, 301}, Shape{65536, 2}, Shape{65537, 3},
        Shape{140000, 1}, Shape{1, 65536}, Shape{300, 500}, Shape{0, 140000}}) {
    for (const bool batchNorm : {false, true}) {
      if (batchNorm && shape.inputs == 0) continue;
      MultiLayerNNModel large;
      large.layers = {risingLayer(shape.inputs, shape.outputs, batchNorm), new NNLayer(1, 1, true)};
      for (const bool inPieces : {false, true}) {
        renew();
        ASSERT_EQ(inPieces ? readInPieces(text(large)) : read(text(large)), 0) << messages;
        model.featureDesc = large.featureDesc;
        EXPECT_EQ(firstDifference(model, large), "") << shape.inputs << " " << shape.outputs;
      }
    }
  }
}

// An array may have twice the rows that were read, of which each number takes two characters.
TEST_F(MultiLayerNNModelAsciiReader, memoryForALargeLayerStaysInProportionToItsText) {
  std::string values;
  for (int i = 0; i < 300000; ++i) values += "1\t";
  for (const std::string size :
       {"2147483647 3", "3 2147483647", "200000 3", "100000 1001", "400000 3", "12287 65"}) {
    const std::string input =
        kHead + "num_layers 1\nlayer 1 size " + size + "\nact_fn relu\n" + values;
    renew();
    const AllocationWatch watch;
    EXPECT_EQ(read(input), 1);
    EXPECT_LE(watch.largest(), sizeof(float) * input.size()) << size;
    EXPECT_LE(watch.allocations(), 100u) << size;
    EXPECT_EQ(messages, error("unexpected end of input after reading all layers"));
  }
}

TEST_F(MultiLayerNNModelAsciiReader, runningOutOfMemoryLeavesNoLeakAndAWorkingModel) {
  if (!kCanFailAllocations) GTEST_SKIP() << "allocations cannot be made to fail here";
  MultiLayerNNModel original;
  original.layers = {risingLayer(300, 301, false), risingLayer(301, 2, true)};
  original.loss = {1, 2, 3};
  original.props = {{"a_property_with_a_long_name_beyond_any_small_buffer", "value"}};
  original.notes.lines = {"a note that is too long for the small buffer of a string"};
  const std::string input = text(original);
  std::size_t failures = 0;
  for (bool happened = true; happened; ++failures) {
    const AllocationWatch watch;
    stderrOf([&] {
      MultiLayerNNModel partial;
      std::istringstream in(input);
      bool threw = false;
      {
        const FailingAllocation failing(failures);
        try {
          EXPECT_EQ(partial.deserializeAscii(in), 0);  // memory is no fault of the file
        } catch (const std::bad_alloc&) {
          threw = true;
        }
        happened = failing.happened();
      }
      EXPECT_EQ(threw, happened);
      const MultiLayerNNModel copy(partial);
      EXPECT_EQ(copy.layers.size(), partial.layers.size());
    });
    EXPECT_EQ(watch.live(), 0) << "after " << failures << " allocations";
  }
  EXPECT_GT(failures, 20u);
}

// --- Round trips ---

float anyFiniteFloat(std::mt19937& source) {
  for (;;) {
    const auto bits = static_cast<uint32_t>(source());
    float value;
    std::memcpy(&value, &bits, sizeof value);
    if (std::isfinite(value)) return value;
  }
}

void fillAny(Eigen::Ref<Eigen::MatrixXf> values, std::mt19937& source) {
  for (Eigen::Index c = 0; c < values.cols(); ++c) {
    for (Eigen::Index r = 0; r < values.rows(); ++r) values(r, c) = anyFiniteFloat(source);
  }
}

NNLayer* anyLayer(int inputs, int outputs, bool batchNorm, std::mt19937& source) {
  auto* layer = new NNLayer(inputs, outputs, batchNorm);
  fillAny(layer->weights, source);
  if (!batchNorm) fillAny(layer->bias, source);
  fillAny(layer->gamma, source);
  fillAny(layer->beta, source);
  fillAny(layer->gamma_inf, source);
  fillAny(layer->beta_inf, source);
  return layer;
}

TEST_F(MultiLayerNNModelAsciiReader, nineDigitsReadBackToTheSameModelAndTheSameBytes) {
  std::mt19937 source(7);
  MultiLayerNNModel original;
  original.layers = {anyLayer(40, 30, false, source), anyLayer(30, 20, true, source),
                     anyLayer(20, 0, false, source), anyLayer(0, 5, false, source)};
  original.layers[0]->actFn = ActFn::leaky_relu;
  original.layers[2]->actFn = ActFn::silu;
  for (int i = 0; i < 50; ++i) original.loss.push_back(anyFiniteFloat(source));
  original.accuracy = {FLT_MAX, -FLT_MAX, FLT_MIN, -0.0f, std::numeric_limits<float>::denorm_min()};
  original.notes.lines = {"a note", "", " blanks ", "#sign", "nn_tune comment -win_size_left 4"};
  original.props = {{"", "empty key"}, {"alpha", ""}, {"beta", "one two "}, {"beta.", "x"}};
  original.useSoftmax = false;
  EXPECT_EQ(read(text(original)), 0) << messages;
  EXPECT_EQ(text(model), text(original));
  EXPECT_EQ(model.featureDesc.winSizeLeft, 4);
  model.featureDesc = original.featureDesc;
  EXPECT_EQ(firstDifference(model, original), "");
}

TEST_F(MultiLayerNNModelAsciiReader, nonFiniteValuesDoNotReadBack) {
  for (const float value : {std::nanf(""), -INFINITY}) {
    MultiLayerNNModel original;
    original.layers = {new NNLayer(1, 1, false)};
    original.layers[0]->weights(0, 0) = value;
    EXPECT_EQ(read(text(original)), 1);
    EXPECT_EQ(messages, error("unexpected extra data at end of file: ''"));
  }
}

}  // namespace
