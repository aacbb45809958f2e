// The library's reader of the text format against a literal one: on every input both must give
// the same result, messages, model and stream.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <functional>
#include <istream>
#include <iterator>
#include <locale>
#include <optional>
#include <random>
#include <set>
#include <sstream>
#include <stdexcept>
#include <streambuf>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/CaptureStderr.h"
#include "tests/support/Extent.h"
#include "tests/support/LiteralAsciiReader.h"
#include "tests/support/ModelDifference.h"

namespace {

using mlnn::test::CaptureStderr;
using mlnn::test::Extent;
using mlnn::test::firstDifference;
using mlnn::test::literalDeserializeAscii;
using mlnn::test::LiteralReading;

// Above this many entries the library may leave short what it could not read.
constexpr std::size_t kWholeArrayLimit = 65536;

// --- Streams ---

// A source that hands out its text in blocks, cannot seek, and may break off by throwing.
class BlockBuffer : public std::streambuf {
 public:
  BlockBuffer(const std::string& text, std::size_t block, std::size_t throwAt)
      : text_(text), block_(block), throwAt_(throwAt) {}

 protected:
  int_type underflow() override {
    if (gptr() != egptr()) return traits_type::to_int_type(*gptr());
    if (next_ >= throwAt_) {
      throwAt_ = std::string::npos;  // once: what follows can be looked at
      throw std::runtime_error("source broke off");
    }
    const std::size_t end = std::min({next_ + block_, text_.size(), throwAt_});
    if (next_ >= text_.size()) return traits_type::eof();
    char* const begin = text_.data() + next_;
    setg(begin, begin, text_.data() + end);
    next_ = end;
    return traits_type::to_int_type(*gptr());
  }

 private:
  std::string text_;
  std::size_t block_;
  std::size_t throwAt_;
  std::size_t next_ = 0;
};

class CommaNumbers : public std::numpunct<char> {
 protected:
  char do_decimal_point() const override { return ','; }
  char do_thousands_sep() const override { return '.'; }
  std::string do_grouping() const override { return "\3"; }
};

// White space that is none elsewhere, and the other way round.
class SemicolonSpace : public std::ctype<char> {
 public:
  SemicolonSpace() : std::ctype<char>(table()) {}

 private:
  static const mask* table() {
    static const std::vector<mask> masks = [] {
      std::vector<mask> result(classic_table(), classic_table() + table_size);
      result[';'] |= space;
      result['\v'] &= static_cast<mask>(~space);
      return result;
    }();
    return masks.data();
  }
};

std::locale commaLocale() { return std::locale(std::locale::classic(), new CommaNumbers); }
std::locale semicolonLocale() { return std::locale(std::locale::classic(), new SemicolonSpace); }

// How the text comes to the reader.
struct Source {
  std::string name = "plain";
  std::size_t block = 0;  // 0: a string stream
  std::size_t throwAt = std::string::npos;
  std::function<void(std::istream&)> prepare = [](std::istream&) {};
  // What a read that throws leaves of a row in the model is open.
  bool comparesModel = true;
};

Source prepared(const std::string& name, std::function<void(std::istream&)> prepare) {
  Source source;
  source.name = name;
  source.prepare = std::move(prepare);
  return source;
}

std::vector<Source> unusualSources() {
  return {
      prepared("commas", [](std::istream& in) { in.imbue(commaLocale()); }),
      prepared("semicolons", [](std::istream& in) { in.imbue(semicolonLocale()); }),
      prepared("hex", [](std::istream& in) { in >> std::hex; }),
      prepared("oct", [](std::istream& in) { in >> std::oct; }),
      prepared("any base", [](std::istream& in) { in.unsetf(std::ios::basefield); }),
      prepared("no skipping", [](std::istream& in) { in >> std::noskipws; }),
      prepared("width", [](std::istream& in) { in.width(3); }),
      prepared("ended", [](std::istream& in) { in.setstate(std::ios::eofbit); }),
      prepared("failed", [](std::istream& in) { in.setstate(std::ios::failbit); }),
      prepared("bad", [](std::istream& in) { in.setstate(std::ios::badbit); }),
      prepared("later start", [](std::istream& in) { in.ignore(5); }),
  };
}

std::vector<Source> throwingSources() {
  std::vector<Source> sources = {
      prepared("bad throws", [](std::istream& in) { in.exceptions(std::ios::badbit); }),
      prepared("failure throws", [](std::istream& in) { in.exceptions(std::ios::failbit); }),
      prepared("end throws", [](std::istream& in) { in.exceptions(std::ios::eofbit); }),
  };
  for (Source& source : sources) source.comparesModel = false;
  return sources;
}

// --- One comparison ---

struct Outcome {
  std::optional<int> result;
  std::string exception;
  std::string messages;
  std::ios::iostate state = std::ios::goodbit;
  std::streamsize width = 0;
  std::string rest;  // what the reader left in the stream
  MultiLayerNNModel model;
  std::size_t largestRequest = 0;
};

// A model in which every field holds something that a reader may have to replace.
void fill(MultiLayerNNModel& model) {
  model.layers = {new NNLayer(2, 3, true), nullptr, new NNLayer(3, 1, false)};
  model.loss = {1.5f, 2.5f, 3.5f};
  model.accuracy = {4.5f, 5.5f};
  model.props = {{"alpha", "old"}, {"zeta", "kept"}};
  model.notes.addString("# an older note");
  model.deltasNorm.minvals = Eigen::VectorXf::Constant(120, 0.25f);
  model.deltasNorm.normvals = Eigen::VectorXf::Constant(7, 0.75f);
  model.useSoftmax = false;
  model.featureDesc.winSizeLeft = 1;
  model.featureDesc.winSizeRight = 2;
  model.featureDesc.lineKernelWidth = 3;
  model.featureDesc.featType = 4;
  model.featureDesc.reserved = 5;
  model.featureDesc.useLineKernels = true;
  model.featureDesc.numBands = 0;
}

std::string restOf(std::istream& in) {
  in.exceptions(std::ios::goodbit);
  in.clear();
  std::string rest;
  try {
    for (int c = in.rdbuf()->sbumpc(); c != std::char_traits<char>::eof();
         c = in.rdbuf()->sbumpc()) {
      rest += static_cast<char>(c);
    }
  } catch (const std::runtime_error&) {
    rest += "<broke off>";
  }
  return rest;
}

// Runs `read` on the text as `source` hands it out, and puts all that shows into `outcome`.
template <typename Read>
void observe(const std::string& text, const Source& source, Outcome& outcome, Read read) {
  std::istringstream whole(text);
  BlockBuffer blocks(text, source.block, source.throwAt);
  std::istream in(source.block == 0 ? whole.rdbuf() : static_cast<std::streambuf*>(&blocks));
  source.prepare(in);
  try {
    read(in);
  } catch (const std::exception& e) {
    outcome.exception = e.what();
  }
  outcome.state = in.rdstate();
  outcome.width = in.width();
  outcome.rest = restOf(in);
}

void observeLibrary(const std::string& text, const Source& source, Outcome& outcome) {
  CaptureStderr capture;
  observe(text, source, outcome,
          [&](std::istream& in) { outcome.result = outcome.model.deserializeAscii(in); });
  outcome.messages = capture.text();
}

void observeLiteral(const std::string& text, const Source& source, Outcome& outcome) {
  std::ostringstream messages;
  observe(text, source, outcome, [&](std::istream& in) {
    const LiteralReading reading = literalDeserializeAscii(outcome.model, in, messages);
    outcome.result = reading.result;
    outcome.largestRequest = reading.largestRequest;
  });
  outcome.messages = messages.str();
}

std::string shown(const std::optional<int>& result) {
  return result ? std::to_string(*result) : "nothing";
}

// Returns "" where both readers agree, else what the library (first) did differently.
std::string disagreement(const Outcome& library, const Outcome& literal, const Source& source) {
  if (library.exception != literal.exception) {
    return "exception: '" + library.exception + "' != '" + literal.exception + "'";
  }
  if (library.messages != literal.messages) {
    return "messages:\n" + library.messages + "!=\n" + literal.messages;
  }
  if (library.result != literal.result) {
    return "result: " + shown(library.result) + " != " + shown(literal.result);
  }
  if (library.state != literal.state) {
    return "state: " + std::to_string(library.state) + " != " + std::to_string(literal.state);
  }
  if (library.width != literal.width) return "width";
  if (library.rest != literal.rest) {
    return "rest: " + std::to_string(library.rest.size()) +
           " != " + std::to_string(literal.rest.size());
  }
  if (!source.comparesModel) return "";
  const bool mayBeShort = literal.result != 0 && literal.largestRequest > kWholeArrayLimit;
  const Extent extent = mayBeShort ? Extent::kReadParts : Extent::kWhole;
  const std::string field = firstDifference(library.model, literal.model, extent);
  return field.empty() ? "" : "model: " + field;
}

// A part of each message that damage to a file can lead to.
const std::vector<std::string> kMessages = {"expected header on first line",
                                            "Expected to find 'softmax'",
                                            "expected 'num_layers'",
                                            "expected either 'layer'",
                                            "expected layer ",
                                            "Expecting gamma_beta",
                                            "Expected to find 'act_fn'",
                                            "Unknown activation",
                                            "unexpected end of file",
                                            "unexpected end of input",
                                            "unexpected extra data",
                                            "feature description length",
                                            "could not deserialize feature",
                                            "invalid count",
                                            "did not find 120 values",
                                            "could not parse line",
                                            "info: setting",
                                            "info: NNModel"};

// Counts what the compared inputs led to, so that a test can ask whether it covered enough.
struct Coverage {
  std::size_t compared = 0;
  std::size_t accepted = 0;
  std::size_t tooLarge = 0;
  std::set<std::string> unseen = {kMessages.begin(), kMessages.end()};

  void add(const Outcome& outcome) {
    ++compared;
    if (outcome.result == 0) ++accepted;
    for (auto it = unseen.begin(); it != unseen.end();) {
      const bool seen = outcome.messages.find(*it) != std::string::npos;
      it = seen ? unseen.erase(it) : std::next(it);
    }
  }
};

std::string compareOnce(const std::string& text, const Source& source, bool filled,
                        Coverage& coverage) {
  Outcome literal;
  Outcome library;
  if (filled) {
    fill(literal.model);
    fill(library.model);
  }
  observeLiteral(text, source, literal);
  if (!literal.result && literal.exception.empty()) {
    ++coverage.tooLarge;
    return "";
  }
  observeLibrary(text, source, library);
  coverage.add(literal);
  return disagreement(library, literal, source);
}

// Reads into a new model and into one that held something before.
std::string compare(const std::string& text, const Source& source, Coverage& coverage) {
  for (const bool filled : {false, true}) {
    const std::string difference = compareOnce(text, source, filled, coverage);
    if (!difference.empty()) return (filled ? "filled model, " : "new model, ") + difference;
  }
  return "";
}

// Cuts away whatever can go while the readers still disagree.
std::string smallest(std::string text, const Source& source) {
  Coverage ignored;
  for (std::size_t length = text.size() / 2 + 1; length > 0; length /= 2) {
    for (std::size_t at = 0; at + length <= text.size();) {
      std::string shorter = text;
      shorter.erase(at, length);
      if (compare(shorter, source, ignored).empty()) {
        at += length;
      } else {
        text = shorter;
      }
    }
  }
  return text;
}

void expectAgreement(const std::string& text, const Source& source, Coverage& coverage) {
  if (compare(text, source, coverage).empty()) return;
  const std::string input = smallest(text, source);
  ADD_FAILURE() << source.name << ": " << compare(input, source, coverage) << "\non "
                << ::testing::PrintToString(input);
}

// --- Inputs ---

std::string normLine(const std::string& name, int count) {
  std::string line = "# TRAIN rbm_train a b -" + name + " ";
  for (int i = 0; i < count; ++i) line += (i == 0 ? "" : ",") + std::to_string(i) + ".5";
  return line + "\n";
}

// Everything that the format has, small.
std::string version2() {
  return "MultiLayerNNModel_v2\nsoftmax 0\n# a note\n#no blank\n# NVP alpha 1 2\n# NVP beta\n"
         "# nn_tune comment -deltas 0\n# nn_tune comment -win_size_left 2\n"
         "# nn_tune comment -win_size_right 3\n# nn_tune comment -linekernels 3\n" +
         normLine("deltas_norm_minvals", 3) +
         "loss 3\n1.5\t-2.5e-3\t1e30\naccuracy 2\n0.25\t0.75\nnum_layers 3\n"
         "layer 1 size 2 3\nact_fn sigmoid\n0.5\t-1.5\t2\n-0\t1e-42\t3.25\n"
         "batch_norm_layer 2 size 2 2\n1\t2\n3\t4\ngamma_beta\n1\t2\t3\t4\n5\t6\t7\t8# glued\n"
         "layer 3 size 1 3 act_fn relu\n9\t10\t11\n";
}

std::string version2WithFeatureDesc() {
  return "MultiLayerNNModel_v2\nsoftmax 1\n# nn_tune comment -win_size_left 2\n"
         "# nn_tune feat_desc "
         "mel_deltas:bands=1,left=0,right=0,deltas=1,line_kernels=0,line_kernel_width=0\n"
         "# NVP last nn_tune feat_desc x\n" +
         normLine("deltas_norm_normvals", 120) +
         "num_layers 1\nlayer 1 size 1 4\nact_fn linear\n1\t2\t3\t4\n";
}

std::string version1() {
  return "MultiLayerNNModel\n# NVP labels a,b\naccuracy 1\n0.5\nnum_layers 2\n"
         "layer 1 size 2 2\n1\t2\n3\t4\nbatch_norm_layer 2 size 1 2\n5\t6\ngamma_beta\n"
         "7\t8\t9\t10\n";
}

std::string withoutNumbers() {
  return "MultiLayerNNModel_v2\nsoftmax 1\nloss 0\n\naccuracy 0\n\nnum_layers 3\n"
         "layer 1 size 0 1\nact_fn linear\n# note\n# x\n"
         "batch_norm_layer 2 size 0 0\ngamma_beta\n# another\n"
         "layer 3 size 0 2\nact_fn tanh\n";
}

std::vector<std::string> baseTexts() {
  return {version2(), version2WithFeatureDesc(), version1(), withoutNumbers()};
}

// Repeatable on every platform, which the standard distributions are not.
class Dice {
 public:
  explicit Dice(uint32_t seed) : source_(seed) {}
  std::size_t below(std::size_t bound) { return source_() % bound; }
  template <typename T>
  const T& oneOf(const std::vector<T>& values) {
    return values[below(values.size())];
  }

 private:
  std::mt19937 source_;
};

const std::vector<std::string>& oddTokens() {
  static const std::vector<std::string> tokens = {
      "-1",
      "0",
      "1",
      "2",
      "3",
      "99999999999",
      "-99999999999",
      "1e50",
      "-1e50",
      "1e-50",
      "nan",
      "inf",
      "-inf",
      "0x1",
      "0x1p3",
      "+1",
      "+",
      "-",
      ".5",
      ".",
      "5.",
      "1e",
      "1e+",
      "1e5",
      "1E-2",
      "1,5",
      "1.000,5",
      "1.2.3",
      "1-2",
      "--1",
      "0000",
      "007",
      "65537",
      "2147483647",
      "2147483648",
      "#",
      "# NVP",
      "loss",
      "accuracy",
      "layer",
      "size",
      "batch_norm_layer",
      "act_fn",
      "silu",
      "swish",
      "gamma_beta",
      "",
      "num_layers",
      "3.402823669e38",
      "16a",
      "1e-45",
      "1e38",
      "1e39",
      "7e-46",
      "0.1",
      "16777217",
      "-0.0",
      "0e99999",
      "1;2",
      "softmax",
      "nn_tune comment -deltas 1",
      "1e00000000000000000000000001",
      "0.00000000000000000000000000000000000000000000000000001e52"};
  return tokens;
}

struct Span {
  std::size_t begin;
  std::size_t length;
};

// The tokens (or, with "\n", the lines) of a text.
std::vector<Span> spans(const std::string& text, const char* separators) {
  std::vector<Span> result;
  for (std::size_t begin = text.find_first_not_of(separators); begin != std::string::npos;) {
    const std::size_t end = std::min(text.find_first_of(separators, begin), text.size());
    result.push_back({begin, end - begin});
    begin = text.find_first_not_of(separators, end);
  }
  return result;
}

void changeByte(std::string& text, Dice& dice) {
  static const std::vector<std::string> bytes = {std::string(1, '\0'),
                                                 "\r",
                                                 "\r\n",
                                                 "\t",
                                                 "\n",
                                                 " ",
                                                 "  ",
                                                 "\v",
                                                 "#",
                                                 "-",
                                                 "+",
                                                 ".",
                                                 ",",
                                                 "e",
                                                 "0",
                                                 "9",
                                                 "x",
                                                 "\xff",
                                                 "1",
                                                 ";",
                                                 "n",
                                                 " \n"};
  const std::size_t at = dice.below(text.size() + 1);
  switch (dice.below(3)) {
    case 0:
      text.insert(at, dice.oneOf(bytes));
      break;
    case 1:
      if (at < text.size()) text.replace(at, 1, dice.oneOf(bytes));
      break;
    default:
      if (at < text.size()) text.erase(at, 1 + dice.below(3));
  }
}

void changeToken(std::string& text, Dice& dice) {
  const std::vector<Span> tokens = spans(text, " \t\n");
  if (tokens.empty()) return;
  const Span token = dice.oneOf(tokens);
  text.replace(token.begin, token.length, dice.oneOf(oddTokens()));
}

void swapTokens(std::string& text, Dice& dice) {
  const std::vector<Span> tokens = spans(text, " \t\n");
  if (tokens.size() < 2) return;
  const std::size_t second = 1 + dice.below(tokens.size() - 1);
  const Span a = tokens[dice.below(second)];
  const Span b = tokens[second];
  const std::string first = text.substr(a.begin, a.length);
  const std::string other = text.substr(b.begin, b.length);
  text.replace(b.begin, b.length, first);
  text.replace(a.begin, a.length, other);
}

void changeLine(std::string& text, Dice& dice) {
  const std::vector<Span> lines = spans(text, "\n");
  if (lines.empty()) return;
  const Span line = dice.oneOf(lines);
  const std::string copy = text.substr(line.begin, line.length) + "\n";
  switch (dice.below(4)) {
    case 0:
      text.insert(line.begin, copy);
      break;
    case 1:
      text.insert(dice.oneOf(lines).begin, copy);
      break;
    case 2:
      text.erase(line.begin, line.length + dice.below(2));
      break;
    default:
      text.resize(line.begin + line.length);
  }
}

std::string mutated(std::string text, Dice& dice) {
  for (std::size_t count = 1 + dice.below(3); count > 0; --count) {
    switch (dice.below(5)) {
      case 0:
        changeByte(text, dice);
        break;
      case 1:
      case 2:
        changeToken(text, dice);
        break;
      case 3:
        swapTokens(text, dice);
        break;
      default:
        changeLine(text, dice);
    }
  }
  return text;
}

// Each message at least once, and what comes close to one.
std::vector<std::string> handMadeTexts() {
  const std::string head = "MultiLayerNNModel_v2\nsoftmax 1\n";
  const std::string one = head + "num_layers 1\n";
  const std::string two = head + "num_layers 2\n";
  const std::string plain = "layer 1 size 1 2\nact_fn relu\n1\t2\n";
  return {
      "",
      "\n",
      "MultiLayerNNModel",
      "MultiLayerNNModel\n",
      "MultiLayerNNModel \n",
      " MultiLayerNNModel_v2\nsoftmax 1\nnum_layers 0\n",
      "MultiLayerNNModel_v2\r\nsoftmax 1\r\nnum_layers 0\r\n",
      "MultiLayerNNModel_v2",
      "MultiLayerNNModel_v2\nsoftmax",
      "MultiLayerNNModel_v2\nsoftmax\nnum_layers 0\n",
      "MultiLayerNNModel_v2\n  softmax\t99999999999 x\nnum_layers 0\n",
      "MultiLayerNNModel_v2\nsoftmax nan\nnum_layers 0\n",
      "MultiLayerNNModel_v2\nSoftmax 1\nnum_layers 0\n",
      "MultiLayerNNModel_v2\n\nsoftmax 1\nnum_layers 0\n",
      "MultiLayerNNModel_v2\nnum_layers 0\n",
      "MultiLayerNNModel\nsoftmax 1\nnum_layers 0\n",
      head,
      head + "num_layers",
      head + "num_layers\n",
      head + "num_layers 0",
      head + "num_layers 0 ",
      head + "num_layers 0\n\t\n \n",
      head + "num_layers 0 word",
      head + "num_layers 0 word\n",
      head + "num_layers x\n",
      head + "num_layers -1\n",
      head + "num_layers 0x1\n",
      head + "num_layers 1.5\n",
      head + "num_layers +0\n",
      head + "num_layers -0\n",
      head + "loss 1\n1\naccuracy 1\n2\nnum_layers 0\n",
      head + "accuracy 1\n1\nloss 1\n2\nnum_layers 0\n",
      head + "loss 1\n1\nloss 1\n2\nnum_layers 0\n",
      head + "loss -3\n1\nnum_layers 0\n",
      head + "loss 1\n1\naccuracy -3\n1\nnum_layers 0\n",
      head + "loss 2\n1\nnum_layers 0\n",
      head + "loss 2\n1\t2\t3\nnum_layers 0\n",
      head + "loss 2\n1\t1e99\nnum_layers 0\n",
      head + "loss x\nnum_layers 0\n",
      head + "loss 3\n1\t2\t3\naccuracy",
      head + "loss 3\n1\t2\t3\naccuracy\n",
      head + "loss 3\n1\t2\t3\nnum_layers",
      head + "loss 3\n1\t2\t3\nnum_layers\n",
      head + "loss 3\n1\t2\t3\nnum_layers x",
      head + "loss 3\n1\t2\t3\n",
      head + "loss 3\n1\t2\t3",
      head + "loss 0\nnum_layers 0\n",
      head + "loss 1\n1\n# note\nnum_layers 0\n",
      head + "#\n##\n# \n#\t\n# NVP\n# NVP \n# NVP  \n# NVP  x\n# NVP k \nnum_layers 0\n",
      head + " # not at the start\nnum_layers 0\n",
      head + "# NVP k nn_tune comment -deltas 0\nnum_layers 0\n",
      head + "# NVP k deltas_norm_minvals\nnum_layers 0\n",
      head + "# nn_tune comment -win_size_left 5 -deltas 0\nnum_layers 0\n",
      head + "# nn_tune comment -win_size_left 5 \nnum_layers 0\n",
      head + "# nn_tune comment -win_size_left 1e20\nnum_layers 0\n",
      head + "# nn_tune comment -win_size_right -1e20\nnum_layers 0\n",
      head + "# nn_tune comment -win_size_right -2.9\nnum_layers 0\n",
      head + "# nn_tune comment -win_size_right nan\nnum_layers 0\n",
      head + "# nn_tune comment -win_size_right inf\nnum_layers 0\n",
      head + "# nn_tune comment -linekernels 0\nnum_layers 0\n",
      head + "# nn_tune comment -linekernels -1e38\nnum_layers 0\n",
      head + "# nn_tune comment -linekernels 3e38\nnum_layers 0\n",
      head + "# nn_tune comment -linekernels 16777217\nnum_layers 0\n",
      head + "# nn_tune comment -deltas nan\nnum_layers 0\n",
      head + "# nn_tune comment -deltas -0\nnum_layers 0\n",
      head + "# nn_tune comment feat_desc -deltas 0\nnum_layers 0\n",
      head + "#nn_tunefeat_desc\nnum_layers 0\n",
      head + "# nn_tune feat_desc \nnum_layers 0\n",
      head + normLine("deltas_norm_minvals", 119) + "num_layers 0\n",
      head + normLine("deltas_norm_minvals", 120) + "num_layers 0\n",
      head + normLine("deltas_norm_normvals", 121) + "num_layers 0\n",
      head + "#TRAIN rbm_train a b deltas_norm_minvals 1\nnum_layers 0\n",
      head + "# TRAIN rbm_train a deltas_norm_minvals\nnum_layers 0\n",
      head + "# deltas_norm_minvals deltas_norm_normvals\nnum_layers 0\n",
      head + "# deltas_norm_minvals nn_tune comment -win_size_left 5\nnum_layers 0\n",
      one,
      one + plain,
      one + "layer 1 size 1 2\nact_fn relu\n1\t2",
      one + plain + "# trailing note\n",
      one + plain + "layer",
      one + "# note\n" + plain,
      one + "layer 2 size 1 2\nact_fn relu\n1\t2\n",
      one + "layer x size 1 2\nact_fn relu\n1\t2\n",
      one + "layer 99999999999 size 1 2\nact_fn relu\n1\t2\n",
      one + "layer -99999999999 size 1 2\nact_fn relu\n1\t2\n",
      one + "layer 1 width 1 2\nact_fn relu\n1\t2\n",
      one + "Layer 1 size 1 2\nact_fn relu\n1\t2\n",
      one + "layer 1 size 1 x\nact_fn relu\n1\t2\n",
      one + "layer 1 size x 2\nact_fn relu\n1\t2\n",
      one + "layer 1 size -1 2\nact_fn relu\n1\t2\n",
      one + "layer 1 size 1 -2\nact_fn relu\n1\t2\n",
      one + "layer 1 size -1 -2\nact_fn relu\n1\t2\n",
      one + "layer 1 size 1 0\nact_fn relu\n1\t2\n",
      one + "layer 1 size 0 0\nact_fn relu\n",
      one + "layer 1 size 0 1\nact_fn relu\n",
      one + "layer 1 size 0 1\nact_fn relu",
      one + "layer 1 size 2 1\nact_fn relu\n1\n2\n",
      one + "layer 1 size 1 2 act_fn relu\n1\t2\n",
      one + "layer 1 size 1 2 \nact_fn relu\n1\t2\n",
      one + "layer 1 size 1 2\r\nact_fn relu\r\n1\t2\r\n",
      one + "layer 1 size 1 2\nact_fn relu\r\n1\t2\r\n",
      one + "layer 1 size 1 2\n\nact_fn relu\n1\t2\n",
      one + "layer 1 size 1 2\nact_fn\n1\t2\n",
      one + "layer 1 size 1 2\nact_fn swish\n1\t2\n",
      one + "layer 1 size 1 2\nact_fn relu more\n1\t2\n",
      one + "layer 1 size 1 2\n1\t2\n",
      one + "layer 1 size 1 2\nact_fn relu\nnan\t2\n",
      one + "layer 1 size 1 2\nact_fn relu\n1\tinf\n",
      one + "layer 1 size 1 2\nact_fn relu\n1e99\t2\n",
      one + "layer 1 size 1 2\nact_fn relu\n-1e99\t2\n",
      one + "layer 1 size 1 2\nact_fn relu\n1\t2\t3\n",
      one + "layer 1 size 1 2\nact_fn relu\n1 \n\t 2 \n \n",
      one + "batch_norm_layer 1 size 1 1\n1\ngamma_beta\n1\t2\t3\t4\n",
      one + "batch_norm_layer 1 size 1 1\n1\ngamma_beta\n1\t2\t3\t4",
      one + "batch_norm_layer 1 size 1 1\n1 ignored words\ngamma_beta\n1\t2\t3\t4\n",
      one + "batch_norm_layer 1 size 1 1\n1\ngamma_beta \n1\t2\t3\t4\n",
      one + "batch_norm_layer 1 size 1 1\n1\n\ngamma_beta\n1\t2\t3\t4\n",
      one + "batch_norm_layer 1 size 1 1\n1\ngamma_beta\n1\t2\t3\n",
      one + "batch_norm_layer 1 size 1 1\n1\ngamma_beta\n1\t2\tx\t4\n",
      one + "batch_norm_layer 1 size 1 0\n0\ngamma_beta\n1\t2\t3\t4\n",
      one + "batch_norm_layer 1 size 1 0\ngamma_beta\n1\t2\t3\t4\n",
      one + "batch_norm_layer 1 size 1 -1\n",
      one + "batch_norm_layer 1 size 0 0\ngamma_beta\n",
      two + plain,
      two + "layer 1 size 1 2\nact_fn relu\n1\t2",
      two + plain + "layer",
      two + plain + "layer 2",
      two + plain + "layer 2 size",
      two + plain + "layer 2 size 1",
      two + plain + "layer 2 size 1 2",
      two + plain + "layer 2 size x 2\nact_fn relu\n1\t2\n",
      two + plain + "layer x size 1 2\nact_fn relu\n1\t2\n",
      two + plain + "# note\nlayer 2 size 1 2\nact_fn relu\n1\t2\n",
      two +
          "layer 1 size 1 2\nact_fn relu\n1\t2# note\n# same\nlayer 2 size 1 2\nact_fn relu\n"
          "1\t2\n",
      two + "layer 1 size 1 2\nact_fn relu\n1\t2 # note\nlayer 2 size 1 2\nact_fn relu\n1\t2\n",
      two + "layer 1 size 1 2\nact_fn relu\n1\tx\nlayer 2 size 1 2\nact_fn relu\n1\t2\n",
      two + "batch_norm_layer 1 size 0 1\ngamma_beta\n",
      two + "batch_norm_layer 1 size 0 1\ngamma_beta\n# note\n",
  };
}

std::string digits(std::size_t count, Dice& dice) {
  std::string text;
  while (text.size() < count) text += static_cast<char>('0' + dice.below(10));
  return text;
}

// A decimal number in any of its forms, some of them malformed or out of range.
std::string anyDecimal(Dice& dice) {
  static const std::vector<std::string> signs = {"", "", "", "-", "+", "--"};
  std::string text = dice.oneOf(signs) + digits(dice.below(12), dice);
  if (dice.below(3) != 0) text += "." + digits(dice.below(12), dice);
  if (dice.below(3) != 0) return text;
  static const std::vector<std::string> exponents = {"e", "E", "e-", "e+", "e0", "e-0"};
  return text + dice.oneOf(exponents) + digits(dice.below(4), dice);
}

// The decimal text of a number halfway between two floats, or next to it.
std::string nearHalfway(Dice& dice) {
  const auto exponent = static_cast<int>(dice.below(300)) - 150;
  const auto mantissa = static_cast<double>(2 * (dice.below(1 << 23) + (1 << 23)) + 1);
  std::ostringstream text;
  text.precision(static_cast<int>(9 + dice.below(30)));
  text << std::ldexp(mantissa, exponent);
  const std::string number = text.str();
  if (number.find_first_of(".e") == std::string::npos) return number + ".00" + digits(2, dice);
  return number;
}

// Forty numbers: all near halfway, or all usual with an odd one now and then.
std::string numbersText(Dice& dice) {
  static const std::vector<std::string> separators = {"\t", "\n", " ", "\r\n", " \v\f", "\t\t"};
  constexpr int kCount = 40;
  std::string text = "MultiLayerNNModel_v2\nsoftmax 1\nloss " + std::to_string(kCount) + "\n";
  const bool allNearHalfway = dice.below(2) == 0;
  for (int i = 0; i < kCount; ++i) {
    if (allNearHalfway) {
      text += nearHalfway(dice);
    } else if (dice.below(40) == 0) {
      text += anyDecimal(dice);
    } else {
      text += digits(1, dice) + "." + digits(dice.below(19), dice);
    }
    text += dice.oneOf(separators);
  }
  return text + "num_layers 0\n";
}

// --- Tests ---

TEST(FirstDifference, namesEveryField) {
  using Change = std::function<void(MultiLayerNNModel&)>;
  const std::vector<std::pair<std::string, Change>> changes = {
      {"featureDesc", [](MultiLayerNNModel& m) { m.featureDesc.reserved = 9; }},
      {"loss", [](MultiLayerNNModel& m) { m.loss[1] = -m.loss[1]; }},
      {"loss", [](MultiLayerNNModel& m) { m.loss.pop_back(); }},
      {"accuracy", [](MultiLayerNNModel& m) { m.accuracy[0] = 0; }},
      {"props", [](MultiLayerNNModel& m) { m.props["alpha"] += "x"; }},
      {"notes", [](MultiLayerNNModel& m) { m.notes.lines.emplace_back(); }},
      {"minvals", [](MultiLayerNNModel& m) { m.deltasNorm.minvals[119] = 0; }},
      {"normvals", [](MultiLayerNNModel& m) { m.deltasNorm.normvals.resize(0); }},
      {"useSoftmax", [](MultiLayerNNModel& m) { m.useSoftmax = true; }},
      {"layers.size()", [](MultiLayerNNModel& m) { m.layers.push_back(nullptr); }},
      {"layers[1]: missing", [](MultiLayerNNModel& m) { m.layers[1] = new NNLayer(); }},
      {"layers[0]: isBatchNorm", [](MultiLayerNNModel& m) { m.layers[0]->isBatchNorm = false; }},
      {"layers[0]: actFn", [](MultiLayerNNModel& m) { m.layers[0]->actFn = ActFn::relu; }},
      {"layers[0]: weights", [](MultiLayerNNModel& m) { m.layers[0]->weights(2, 1) = -0.0f; }},
      {"layers[0]: weights", [](MultiLayerNNModel& m) { m.layers[0]->weights.resize(2, 3); }},
      {"layers[2]: bias", [](MultiLayerNNModel& m) { m.layers[2]->bias[0] = -0.0f; }},
      {"layers[0]: gamma", [](MultiLayerNNModel& m) { m.layers[0]->gamma[2] = 1; }},
      {"layers[0]: beta", [](MultiLayerNNModel& m) { m.layers[0]->beta[2] = 1; }},
      {"layers[0]: gamma_inf", [](MultiLayerNNModel& m) { m.layers[0]->gamma_inf[2] = 1; }},
      {"layers[0]: beta_inf", [](MultiLayerNNModel& m) { m.layers[0]->beta_inf[2] = 1; }},
  };
  MultiLayerNNModel model;
  fill(model);
  for (const auto& [name, change] : changes) {
    MultiLayerNNModel changed;
    fill(changed);
    EXPECT_EQ(firstDifference(model, changed), "");
    change(changed);
    EXPECT_EQ(firstDifference(model, changed), name);
  }
}

TEST(AsciiDifferential, agreesOnIntactFiles) {
  Coverage coverage;
  for (const std::string& text : baseTexts()) expectAgreement(text, Source(), coverage);
  EXPECT_EQ(coverage.accepted, coverage.compared);
}

TEST(AsciiDifferential, agreesOnHandMadeFiles) {
  Coverage coverage;
  for (const std::string& text : handMadeTexts()) expectAgreement(text, Source(), coverage);
  EXPECT_EQ(coverage.tooLarge, 0u);
}

TEST(AsciiDifferential, agreesOnEveryPrefix) {
  Coverage coverage;
  Source blocks;
  blocks.block = 3;
  for (const std::string& text : baseTexts()) {
    for (std::size_t length = 0; length < text.size(); ++length) {
      expectAgreement(text.substr(0, length), Source(), coverage);
      expectAgreement(text.substr(0, length), blocks, coverage);
    }
  }
  EXPECT_EQ(coverage.tooLarge, 0u);
}

TEST(AsciiDifferential, agreesOnMutations) {
  const std::vector<std::string> bases = baseTexts();
  Coverage coverage;
  Dice dice(1);
  const int count = mlnn::test::triesSample() ? 8000 : 20000;
  for (int i = 0; i < count; ++i) {
    Source source;
    source.block = dice.below(4);
    expectAgreement(mutated(dice.oneOf(bases), dice), source, coverage);
    if (::testing::Test::HasFailure()) return;
  }
  EXPECT_GT(coverage.accepted, coverage.compared / 20);
  EXPECT_LT(coverage.accepted, coverage.compared / 2);
  EXPECT_LT(coverage.tooLarge, coverage.compared / 20);
  EXPECT_THAT(coverage.unseen, testing::IsEmpty());
}

TEST(AsciiDifferential, agreesOnNumbersOfAnyForm) {
  Coverage coverage;
  Dice dice(3);
  for (int i = 0; i < 3000; ++i) {
    Source source;
    source.block = dice.below(3) * 13;
    expectAgreement(numbersText(dice), source, coverage);
    if (::testing::Test::HasFailure()) return;
  }
  EXPECT_GT(coverage.accepted, coverage.compared / 4);
  EXPECT_LT(coverage.accepted, coverage.compared);
}

TEST(AsciiDifferential, agreesOnStreamsWithOtherFlagsLocalesAndStates) {
  const std::vector<std::string> bases = baseTexts();
  std::vector<Source> sources = unusualSources();
  for (Source& source : throwingSources()) sources.push_back(source);
  Coverage coverage;
  Dice dice(2);
  for (const Source& source : sources) {
    for (const std::string& text : bases) expectAgreement(text, source, coverage);
    for (const std::string& text : handMadeTexts()) expectAgreement(text, source, coverage);
    for (int i = 0; i < 300; ++i) {
      expectAgreement(mutated(dice.oneOf(bases), dice), source, coverage);
    }
  }
}

TEST(AsciiDifferential, agreesOnSourcesThatBreakOff) {
  Coverage coverage;
  for (const std::string& text : baseTexts()) {
    for (std::size_t at = 0; at < text.size(); at += 3) {
      Source source;
      source.block = 64;
      source.throwAt = at;
      expectAgreement(text, source, coverage);
    }
  }
}

// Layers, curves and a stack on either side of where the library stops to trust a size.
TEST(AsciiDifferential, agreesOnLargeArraysWholeAndCutShort) {
  const std::string head = "MultiLayerNNModel_v2\nsoftmax 1\n";
  const auto numbers = [](int count, char separator) {
    std::string text;
    for (int i = 0; i < count; ++i) text += std::to_string(i % 977) + ".25" + separator;
    return text;
  };
  const auto stack = [&head](int count) {
    std::string text = head + "num_layers " + std::to_string(count) + "\n";
    for (int k = 1; k <= count; ++k) {
      text += "layer " + std::to_string(k) + " size 0 1\nact_fn tanh\n";
    }
    return text;
  };
  std::vector<std::string> texts = {stack(65535), stack(65537), stack(140000)};
  for (const int rows : mlnn::test::someOf<int>({65535, 65536, 65537, 131073}, 2)) {
    const std::string size = " size " + std::to_string(rows);
    texts.push_back(head + "loss " + std::to_string(rows) + "\n" + numbers(rows, '\t') +
                    "num_layers 0\n");
    texts.push_back(head + "num_layers 1\nlayer 1" + size + " 2\nact_fn elu\n" +
                    numbers(2 * rows, '\n'));
    texts.push_back(head + "num_layers 1\nbatch_norm_layer 1" + size + " 1\n" +
                    numbers(rows, '\n') + "gamma_beta\n" + numbers(4 * rows, ' '));
    texts.push_back(head + "num_layers 1\nlayer 1 size 2 " + std::to_string(rows) +
                    "\nact_fn elu\n" + numbers(2 * rows, '\t'));
  }
  Coverage coverage;
  for (const std::string& text : texts) {
    EXPECT_EQ(compare(text, Source(), coverage), "") << text.substr(0, 80);
  }
  EXPECT_EQ(coverage.accepted, coverage.compared);
  for (const std::string& text : texts) {
    const std::string part = text.substr(0, text.size() - text.size() / 3);
    EXPECT_EQ(compare(part, Source(), coverage), "") << part.substr(0, 80);
  }
  EXPECT_EQ(coverage.tooLarge, 0u);
}

}  // namespace
