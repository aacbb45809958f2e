// Mutations of text models: whole lines, words and numbers, and small models made up by hand.
#include <algorithm>
#include <vector>

#include "fuzz/mutators/Mutation.h"

namespace mlnn::fuzz {
namespace {

constexpr const char* kNumbers[] = {"0",
                                    "1",
                                    "-1",
                                    "2",
                                    "3",
                                    "120",
                                    "65536",
                                    "65537",
                                    "2147483647",
                                    "2147483648",
                                    "-2147483648",
                                    "4294967296",
                                    "9223372036854775808",
                                    "99999999999999999999999",
                                    "0.5",
                                    "-0",
                                    "1e-45",
                                    "3.40282347e+38",
                                    "3.5e38",
                                    "1e999",
                                    "1e-999",
                                    "nan",
                                    "inf",
                                    "1e",
                                    "0x1p3",
                                    "1,5",
                                    "+2",
                                    "16777217",
                                    "7.038531e-26",
                                    ".5",
                                    "5.",
                                    "00012",
                                    "123456789012345678901234567890"};

constexpr const char* kLines[] = {
    "MultiLayerNNModel",
    "MultiLayerNNModel_v2",
    "softmax 1",
    "softmax 0",
    "# note",
    "#",
    "# ",
    "# NVP key value",
    "# NVP key",
    "# NVP ",
    "# NVP  x",
    "loss 1",
    "accuracy 2",
    "num_layers 1",
    "layer 1 size 1 2",
    "batch_norm_layer 1 size 2 1",
    "act_fn sigmoid",
    "act_fn linear",
    "gamma_beta",
    "1\t2\t3\t4",
    "0.25 0.5",
    "",
    "# nn_tune comment -deltas 1",
    "# nn_tune comment -win_size_left 3",
    "# nn_tune comment -win_size_right 2.5",
    "# nn_tune comment -linekernels 3",
    ("# nn_tune feat_desc mel_deltas:bands=1,left=0,right=0,deltas=0,line_kernels=0,"
     "line_kernel_width=0"),
    "# TRAIN rbm_train a b deltas_norm_minvals 1,2,3",
    "# deltas_norm_normvals"};

std::string anyNumber(Random& random) {
  return random.oneIn(2) ? random.of(kNumbers) : std::to_string(random.below(10));
}

std::vector<std::string> linesOf(const std::string& text) {
  std::vector<std::string> lines;
  for (std::size_t begin = 0; begin < text.size();) {
    const std::size_t end = std::min(text.find('\n', begin), text.size() - 1) + 1;
    lines.push_back(text.substr(begin, end - begin));
    begin = end;
  }
  return lines;
}

void changeLines(std::string& text, Random& random) {
  std::vector<std::string> lines = linesOf(text);
  if (lines.empty()) return;
  const std::size_t at = random.below(lines.size());
  const auto position = lines.begin() + static_cast<std::ptrdiff_t>(at);
  switch (random.below(5)) {
    case 0:
      lines.erase(position);
      break;
    case 1:
      lines.insert(position, lines[random.below(lines.size())]);
      break;
    case 2:
      std::swap(lines[at], lines[random.below(lines.size())]);
      break;
    case 3:
      lines[at] = std::string(random.of(kLines)) + "\n";
      break;
    default:
      lines.insert(position, std::string(random.of(kLines)) + "\n");
      break;
  }
  text.clear();
  for (const std::string& line : lines) text += line;
}

bool isBlank(char c) { return c == ' ' || c == '\t' || c == '\n'; }

void changeWord(std::string& text, Random& random) {
  if (text.empty()) return;
  std::size_t begin = random.below(text.size());
  while (begin > 0 && !isBlank(text[begin - 1])) --begin;
  std::size_t end = begin;
  while (end < text.size() && !isBlank(text[end])) ++end;
  text.replace(begin, end - begin, anyNumber(random));
}

void changeBlank(std::string& text, Random& random) {
  constexpr const char* kBlanks[] = {" ", "\t", "\n", "\r\n", "  ", "\v", "", "#"};
  const std::size_t at = text.find_first_of(" \t\n", random.below(text.size() + 1));
  if (at != std::string::npos) text.replace(at, 1, random.of(kBlanks));
}

std::string row(std::size_t values, Random& random) {
  std::string text;
  for (std::size_t i = 0; i < values; ++i) {
    text += (i > 0 ? "\t" : "") +
            (random.oneIn(16) ? anyNumber(random) : std::to_string(random.below(100)) + "e-2");
  }
  return text + "\n";
}

std::string block(std::size_t number, bool isVersion2, Random& random) {
  constexpr const char* kNames[] = {"linear",     "sigmoid", "tanh",     "relu",
                                    "leaky_relu", "elu",     "softplus", "silu"};
  const std::size_t rows = random.below(4);
  const std::size_t columns = 1 + random.below(4);
  const bool isBatchNorm = random.oneIn(2);
  std::string text = std::string(isBatchNorm ? "batch_norm_layer " : "layer ") +
                     std::to_string(number) + " size " + std::to_string(rows) + " " +
                     std::to_string(columns) + "\n";
  if (!isBatchNorm && isVersion2) text += std::string("act_fn ") + random.of(kNames) + "\n";
  for (std::size_t r = 0; r < rows; ++r) text += row(columns, random);
  if (!isBatchNorm) return text;
  text += "gamma_beta\n";
  for (std::size_t r = 0; r < rows; ++r) text += row(4, random);
  return text;
}

}  // namespace

std::string makeText(Random& random) {
  const bool isVersion2 = !random.oneIn(4);
  std::string text = isVersion2 ? "MultiLayerNNModel_v2\nsoftmax 1\n" : "MultiLayerNNModel\n";
  for (std::size_t notes = random.below(3); notes > 0; --notes) {
    const std::string line = random.of(kLines);
    if (!line.empty() && line[0] == '#') text += line + "\n";
  }
  for (const char* curve : {"loss ", "accuracy "}) {
    const std::size_t values = random.below(3);
    if (values > 0) text += curve + std::to_string(values) + "\n" + row(values, random);
  }
  const std::size_t layers = random.below(4);
  text += "num_layers " + std::to_string(layers) + "\n";
  for (std::size_t i = 1; i <= layers; ++i) text += block(i, isVersion2, random);
  return text;
}

void mutateText(std::string& text, Random& random) {
  if (text.empty() || random.oneIn(64)) text = makeText(random);
  switch (random.below(5)) {
    case 0:
      changeLines(text, random);
      break;
    case 1:
      changeWord(text, random);
      break;
    case 2:
      changeBlank(text, random);
      break;
    default:
      mutateBytes(text, 64);
      break;
  }
}

}  // namespace mlnn::fuzz
