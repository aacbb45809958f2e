// The numbers in a file, not only its length: every command of the tool, with every option, on
// models and frames of every odd shape, and with counts at and beside the powers of two. Time and
// memory stay within bounds of the files' bytes.
//
// The commands are those of the tool's own list. Some numbers are tried, and all where the
// environment sets MLNN_EXHAUSTIVE: scripts/check-all numbers does. Else it is a few
// numbers with each bare command, and odd shapes of the largest with each option; where another
// build does that, some of them.
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <algorithm>
#include <cstdint>
#include <functional>
#include <limits>
#include <sstream>
#include <string>
#include <vector>

#include "model/ModelFormat.h"
#include "model/MultiLayerNNModel.h"
#include "tests/support/ByteImage.h"
#include "tests/support/Extent.h"
#include "tests/support/TestModels.h"
#include "tests/tools/support/CommandLines.h"
#include "tests/tools/support/ToolBuild.h"
#include "tests/tools/support/ToolProcess.h"

namespace {

using mlnn::test::ByteImage;
using mlnn::test::commandLines;
using mlnn::test::commandNames;
using mlnn::test::kFramesName;
using mlnn::test::kModelName;
using mlnn::test::runToolAtMost;
using mlnn::test::someOf;
using mlnn::test::TempFolder;
using mlnn::test::ToolResult;
using mlnn::test::TriedLine;
using mlnn::test::triesEverything;

constexpr int kLargest = std::numeric_limits<int32_t>::max();

// --- The bounds ---

// Those who go over so many numbers as a file merely mentions take more, in time or memory.
constexpr unsigned kMostSeconds = 10;
constexpr std::size_t kBaseBytes = std::size_t{24} << 20;  // beside what the small model takes
constexpr std::size_t kBytesPerByte = 256;

// --- Numbers ---

// Powers of two and those beside them.
std::vector<int> allNumbers() {
  std::vector<int> numbers{0};
  for (int64_t power = 1; power <= int64_t{kLargest} + 1; power *= 2) {
    for (const int64_t number : {power - 1, power, power + 1}) {
      if (number > numbers.back() && number <= kLargest) numbers.push_back(int(number));
    }
  }
  return numbers;
}

std::vector<int> numbers() {
  if (triesEverything()) return allNumbers();
  return someOf(std::vector<int>{kLargest, (1 << 24) + 1, 4096}, 3);
}

// --- Models ---

constexpr int kValuesAtMost = 1 << 14;  // that a file has; of more it only speaks
constexpr int kManyLayers = 100;        // of which each may cost something

struct Case {
  std::string name;
  std::string model;
  std::string frames;
};

std::string head(int numLayers) {
  return "MultiLayerNNModel_v2\nsoftmax 1\nnum_layers " + std::to_string(numLayers) + "\n";
}

std::string rowsOf(int rows, int values) {
  if (rows == 0 || values == 0) return "";
  if (int64_t{rows} * values > kValuesAtMost) return "1 ";
  std::string row;
  for (int i = 0; i < values; ++i) row += i == 0 ? "1" : " 1";
  std::string text;
  for (int r = 0; r < rows; ++r) text += row + "\n";
  return text;
}

std::string sizeOf(int layer, int rows, int columns) {
  return std::to_string(layer) + " size " + std::to_string(rows) + " " + std::to_string(columns) +
         "\n";
}

std::string plainLayer(int layer, int rows, int columns) {
  const int values = columns == kLargest ? columns : columns + 1;
  return "layer " + sizeOf(layer, rows, values) + "act_fn relu\n" + rowsOf(rows, values);
}

std::string batchNormLayer(int layer, int rows, int columns) {
  return "batch_norm_layer " + sizeOf(layer, rows, columns) + rowsOf(rows, columns) +
         "gamma_beta\n" + rowsOf(rows, 4);
}

using LayerText = std::string (*)(int, int, int);

std::string textOf(LayerText layer, int rows, int columns, int numLayers) {
  std::string text = head(numLayers);
  for (int i = 1; i <= numLayers; ++i) text += layer(i, rows, columns);
  return text;
}

// An image of as many layers of that shape; what it takes for less than kValuesAtMost values, else
// one that only says so.
std::string imageOf(int rows, int columns, bool isBatchNorm, int numLayers) {
  const bool isWhole = int64_t{rows} * columns <= kValuesAtMost && rows <= kValuesAtMost;
  NNLayer layer(isWhole ? columns : 0, isWhole ? rows : 0, isBatchNorm);
  if (isBatchNorm) layer.bias.resize(0);
  MultiLayerNNModel model =
      mlnn::test::modelOf(std::vector<NNLayer>(static_cast<std::size_t>(numLayers), layer));
  model.deltasNorm.allocIfNeeded();
  ByteImage image = ByteImage::of(model);
  if (isWhole) return image.bytes();
  constexpr std::size_t kRowsOffset = mlnn::kHeadLength + 4;
  return image.setInt32At(kRowsOffset, rows).setInt32At(kRowsOffset + 4, columns).bytes();
}

// A .npy file of that shape, with as many values as the small ones have.
std::string npyOf(int frames, int values) {
  std::string dictionary = "{'descr': '<f4', 'fortran_order': False, 'shape': (" +
                           std::to_string(frames) + ", " + std::to_string(values) + "), }";
  dictionary += std::string(64 - (10 + dictionary.size() + 1) % 64, ' ') + "\n";
  const int64_t count = int64_t{frames} * values;
  const std::string numbers(count <= kValuesAtMost ? std::size_t(count) * 4 : 0, '\0');
  return std::string("\x93NUMPY\x01\x00", 8) + char(dictionary.size() % 256) +
         char(dictionary.size() / 256) + dictionary + numbers;
}

std::vector<std::pair<int, int>> shapesOf(int number) {
  return {{0, number}, {number, 0}, {1, number}, {number, 1}};
}

// Layers of odd shapes, as text and as images, few and many.
void addShapes(int number, std::vector<Case>& cases) {
  for (const auto& [rows, columns] : shapesOf(number)) {
    for (const int layers : {1, kManyLayers}) {
      if (layers > 1 && rows > 0) continue;  // many of those that take no room
      const std::string name =
          std::to_string(layers) + " of " + std::to_string(rows) + " x " + std::to_string(columns);
      const std::string frames = npyOf(1, columns);
      cases.push_back({"plain text, " + name, textOf(plainLayer, rows, columns, layers), frames});
      cases.push_back({"bn text, " + name, textOf(batchNormLayer, rows, columns, layers), frames});
      cases.push_back({"plain image, " + name, imageOf(rows, columns, false, layers), frames});
      cases.push_back({"bn image, " + name, imageOf(rows, columns, true, layers), frames});
    }
  }
}

// A context as wide as the model's inputs, so that one value would make them all.
void addWindow(int number, std::vector<Case>& cases) {
  const std::string description =
      "# nn_tune feat_desc mel_deltas:bands=1,left=" + std::to_string(number - 1) +
      ",right=0,deltas=0,line_kernels=0,line_kernel_width=0\n";
  for (const int rows : {0, 1}) {
    std::string text = textOf(batchNormLayer, rows, number, 1);
    text.insert(text.find("num_layers"), description);
    cases.push_back({"window of " + std::to_string(number) + ", " + std::to_string(rows) + " rows",
                     text, npyOf(3, 1)});
  }
}

// Each of the counts that a text has.
void addCounts(int number, std::vector<Case>& cases) {
  const std::string n = std::to_string(number);
  const std::string model = textOf(plainLayer, 2, 3, 1);
  const auto add = [&](const char* name, const std::string& before, const std::string& after) {
    std::string text = model;
    const std::size_t at = text.find(before);
    cases.push_back({name + (" " + n), text.replace(at, before.size(), after), npyOf(1, 3)});
  };
  add("softmax", "softmax 1", "softmax " + n);
  add("loss", "num_layers", "loss " + n + "\n1\nnum_layers");
  add("accuracy", "num_layers", "accuracy " + n + "\n1\nnum_layers");
  add("layers", "num_layers 1", "num_layers " + n);
  add("index", "layer 1 ", "layer " + n + " ");
  for (const char* field :
       {"bands", "left", "right", "deltas", "line_kernels", "line_kernel_width"}) {
    add(field, "num_layers",
        std::string("# nn_tune feat_desc mel_deltas:") + field + "=" + n + "\nnum_layers");
  }
  for (const char* option : {"-deltas", "-win_size_left", "-win_size_right", "-linekernels"}) {
    add(option, "num_layers",
        std::string("# nn_tune comment ") + option + " " + n + "\nnum_layers");
  }
}

// Each word of the head of an image and of its first record.
void addWords(int number, std::vector<Case>& cases) {
  const std::string image = imageOf(2, 3, false, 1);
  std::vector<std::size_t> words{8, 12, 16, 20, 24, 28, 32, 516, 1000};
  for (std::size_t i = 0; i < 12; ++i) words.push_back(mlnn::kHeadLength + 4 * i);
  for (const std::size_t word : words) {
    cases.push_back({"word at " + std::to_string(word) + " is " + std::to_string(number),
                     ByteImage(image).setInt32At(word, number).bytes(), npyOf(1, 3)});
  }
}

// Frames that are not those of the model.
void addFrames(int number, std::vector<Case>& cases) {
  for (const auto& [frames, values] : shapesOf(number)) {
    cases.push_back({"frames of " + std::to_string(frames) + " x " + std::to_string(values),
                     textOf(plainLayer, 2, 3, 1), npyOf(frames, values)});
  }
}

void addRest(int number, std::vector<Case>& cases) {
  addCounts(number, cases);
  addWords(number, cases);
  addFrames(number, cases);
}

// --- Commands ---

// Those that become another program are tried without options and on fewer numbers: it starts
// slowly.
bool startsPython(const std::string& command) { return command.find("onnx") != std::string::npos; }

bool readsModel(const TriedLine& line) {
  for (const std::string& word : line.arguments) {
    if (word == kModelName || word == kFramesName) return true;
  }
  return false;
}

// What this process has had, which the system counts for its children as well.
std::size_t ownPeak() {
  rusage used{};
  getrusage(RUSAGE_SELF, &used);
  return static_cast<std::size_t>(used.ru_maxrss) << 10;
}

class CommandNumbers : public testing::TestWithParam<std::string> {
 protected:
  CommandNumbers() { mlnn::test::makeInputs(folder_); }

  void expectWithinBounds(const Case& numbers, const TriedLine& line, std::size_t base) {
    SCOPED_TRACE(line.name + ": " + numbers.name);
    folder_.write(kModelName, numbers.model);
    folder_.write(kFramesName, numbers.frames);
    const ToolResult result = runToolAtMost(kMostSeconds, line.arguments, folder_.path());
    EXPECT_LE(result.status, 2) << "after " << result.processorSeconds << " s; " << result.err;
    EXPECT_EQ(result.err.find("out of memory"), std::string::npos) << result.err;
    const std::size_t bytes = numbers.model.size() + numbers.frames.size();
    if (mlnn::test::toolHasSanitizers()) return;
    const std::size_t most = std::max(base, ownPeak()) + kBaseBytes + kBytesPerByte * bytes;
    EXPECT_LE(result.peakBytes, most) << result.err;
  }

  TempFolder folder_;
};

TEST_P(CommandNumbers, everyLineIsWellFormed) {
  for (const TriedLine& line : commandLines(GetParam())) {
    EXPECT_NE(runToolAtMost(kMostSeconds, line.arguments, folder_.path()).status, 2) << line.name;
  }
}

TEST_P(CommandNumbers, costNoMoreThanTheFilesDo) {
  constexpr std::size_t kSampleStep = 21;
  constexpr std::size_t kBareSampleStep = 3;
  std::size_t turn = 0;  // so that the samples of two lines are not the same
  for (const TriedLine& line : commandLines(GetParam())) {
    const bool isBare = line.name == GetParam();
    if (!readsModel(line) || (startsPython(GetParam()) && !isBare)) continue;
    // Else the odd shapes of the largest number.
    const bool triesAll = triesEverything() || (isBare && !startsPython(GetParam()));
    const ToolResult small = runToolAtMost(kMostSeconds, line.arguments, folder_.path());
    for (const int number : triesAll ? numbers() : std::vector<int>{kLargest}) {
      std::vector<Case> cases;
      addShapes(number, cases);
      addWindow(number, cases);
      if (triesAll) addRest(number, cases);
      const std::size_t step = triesAll ? kBareSampleStep : kSampleStep;
      cases = someOf(cases, step, turn++ % step);
      for (const Case& numbers : cases) expectWithinBounds(numbers, line, small.peakBytes);
    }
  }
}

std::string nameOf(const testing::TestParamInfo<std::string>& instance) {
  std::string name = instance.param;
  for (char& c : name) c = c == '-' ? '_' : c;
  return name;
}

INSTANTIATE_TEST_SUITE_P(Tool, CommandNumbers, testing::ValuesIn(commandNames()), nameOf);

}  // namespace
