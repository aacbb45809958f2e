#include "tools/files/Frames.h"

#include <algorithm>
#include <cmath>
#include <ostream>
#include <string_view>
#include <vector>

#include "text/Escape.h"
#include "text/Numbers.h"
#include "text/TextParts.h"
#include "tools/Failure.h"
#include "tools/files/InputFile.h"
#include "tools/files/Npy.h"
#include "tools/files/NumberWord.h"
#include "tools/files/OutputBatch.h"
#include "tools/files/OutputFile.h"

namespace mlnn {
namespace {

using Eigen::Index;

constexpr char kNpyEnding[] = ".npy";
constexpr std::string_view kBlanks = " \t";
constexpr std::string_view kSeparators = " \t,";

// Reads text line by line into one array of values.
class TextParser {
 public:
  TextParser(std::string_view text, const std::string& what) : rest_(text), what_(what) {}

  Eigen::MatrixXf parse() {
    while (!rest_.empty()) {
      ++lineNumber_;
      parseLine(takeLine());
    }
    if (frames_ == 0) throw Failure(what_ + ": holds no frames");
    const Index width = static_cast<Index>(width_);
    return Eigen::Map<const Eigen::MatrixXf>(values_.data(), width, static_cast<Index>(frames_));
  }

 private:
  std::string_view takeLine() {
    const std::size_t end = rest_.find('\n');
    std::string_view line = rest_.substr(0, end);
    rest_.remove_prefix(end == std::string_view::npos ? rest_.size() : end + 1);
    if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
    return line;
  }

  void parseLine(std::string_view line) {
    line_ = line;
    position_ = 0;
    skipBlanks();
    if (atEnd() || line_[position_] == '#') return;
    const std::size_t before = values_.size();
    parseNumber();
    while (skipSeparator()) parseNumber();
    const std::size_t width = values_.size() - before;
    if (frames_ > 0 && width != width_) {
      throw Failure(what_ + ", line " + std::to_string(lineNumber_) + ": expected " +
                    counted(width_, "value") + " as in the lines before, found " +
                    std::to_string(width));
    }
    width_ = width;
    ++frames_;
  }

  bool atEnd() const { return position_ == line_.size(); }

  void skipBlanks() {
    position_ = std::min(line_.find_first_not_of(kBlanks, position_), line_.size());
  }

  // Blanks with at most one comma among them. Blanks alone may end the line, a comma may not.
  bool skipSeparator() {
    skipBlanks();
    if (atEnd()) return false;
    if (line_[position_] != ',') return true;
    ++position_;
    skipBlanks();
    return true;
  }

  void parseNumber() {
    const std::size_t end = std::min(line_.find_first_of(kSeparators, position_), line_.size());
    std::string_view word = line_.substr(position_, end - position_);
    std::string_view digits = word;
    if (digits.size() > 1 && digits[0] == '+' && digits[1] != '-') digits.remove_prefix(1);
    float value = 0;
    const std::from_chars_result result =
        parseWord(digits.data(), digits.data() + digits.size(), value);
    const bool isWhole = result.ptr == digits.data() + digits.size();
    if (result.ec == std::errc::result_out_of_range && isWhole) {
      value = outOfRange(digits, word);
    } else if (result.ec != std::errc() || !isWhole) {
      fail("a number", word);
    }
    values_.push_back(value);
    position_ = end;
  }

  // A number too small for a float becomes what is nearest to it, one too large is refused.
  float outOfRange(std::string_view digits, std::string_view word) const {
    double value = 0;
    const std::from_chars_result result =
        parseWord(digits.data(), digits.data() + digits.size(), value);
    const auto rounded = static_cast<float>(value);
    if (result.ec != std::errc() || std::isinf(rounded)) {
      fail("a number in the range of 32-bit floats", word);
    }
    return rounded;
  }

  [[noreturn]] void fail(const std::string& expected, std::string_view found) const {
    constexpr std::size_t kShown = 40;
    throw Failure(what_ + ", line " + std::to_string(lineNumber_) + ", column " +
                  std::to_string(position_ + 1) + ": expected " + expected + ", found " +
                  (found.empty() ? (atEnd() ? "the end of the line" : "','")
                                 : inQuotes(found.substr(0, kShown))));
  }

  std::string_view rest_;
  const std::string& what_;
  std::string_view line_;
  std::size_t position_ = 0;  // in line_
  std::size_t lineNumber_ = 0;
  std::vector<float> values_;
  std::size_t width_ = 0;
  std::size_t frames_ = 0;
};

void writeText(const Eigen::MatrixXf& frames, std::ostream& out) {
  for (Index f = 0; f < frames.cols(); ++f) {
    for (Index v = 0; v < frames.rows(); ++v) {
      if (v > 0) out << ' ';
      out << generalNumber(static_cast<double>(frames(v, f)), kExactDigits);
    }
    out << '\n';
  }
}

// In the format that the name asks for.
void writeAs(const std::string& name, const Eigen::MatrixXf& frames, std::ostream& out) {
  if (endsWith(name, kNpyEnding)) {
    writeNpy(frames, out);
  } else {
    writeText(frames, out);
  }
}

}  // namespace

Eigen::MatrixXf readFrames(const std::string& name) {
  return parseFrames(readInput(name), inputName(name));
}

Eigen::MatrixXf readRecording(const std::string& name) {
  Eigen::MatrixXf frames = readFrames(name);
  const std::string warning = notFiniteWarning(frames, name);
  if (!warning.empty()) printWarning(warning);
  return frames;
}

std::string notFiniteWarning(const Eigen::MatrixXf& frames, const std::string& name) {
  const Index notFinite = frames.size() - frames.array().isFinite().count();
  if (notFinite == 0) return "";
  return inputName(name) + " holds " + counted(static_cast<std::size_t>(notFinite), "value") +
         " not finite";
}

Eigen::MatrixXf parseFrames(const std::string& bytes, const std::string& what) {
  return isNpy(bytes) ? parseNpy(bytes, what) : TextParser(bytes, what).parse();
}

void writeFrames(const std::string& name, const Eigen::MatrixXf& frames) {
  OutputFile file(name);
  writeAs(name, frames, file.stream());
  file.finish();
}

void writeFrames(const std::string& name, const Eigen::MatrixXf& frames, OutputBatch& batch) {
  OutputFile file(name);
  writeAs(name, frames, file.stream());
  batch.add(file);
}

}  // namespace mlnn
