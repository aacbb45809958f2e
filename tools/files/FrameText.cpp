#include "tools/files/FrameText.h"

#include <algorithm>
#include <charconv>
#include <cmath>

#include "text/Escape.h"
#include "text/Numbers.h"
#include "tools/Failure.h"
#include "tools/files/NumberWord.h"

namespace mlnn {
namespace {

constexpr std::string_view kBlanks = " \t";
constexpr std::string_view kSeparators = " \t,";

}  // namespace

void FrameTextParser::addLines(std::string_view text) {
  while (!text.empty()) {
    const std::size_t end = text.find('\n');
    addLine(text.substr(0, end));
    text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
  }
}

void FrameTextParser::addLine(std::string_view line) {
  ++lineNumber_;
  if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
  line_ = line;
  position_ = 0;
  skipBlanks();
  if (atEnd() || line_[position_] == '#') return;
  const std::size_t before = values_.size();
  parseNumber();
  while (skipSeparator()) parseNumber();
  const std::size_t width = values_.size() - before;
  if (width_ > 0 && width != width_) {
    throw Failure(what_ + ", line " + std::to_string(lineNumber_) + ": expected " +
                  counted(width_, "value") + " as in the lines before, found " +
                  std::to_string(width));
  }
  width_ = width;
  ++count_;
}

Eigen::MatrixXf FrameTextParser::take() {
  Eigen::MatrixXf frames = Eigen::Map<const Eigen::MatrixXf>(
      values_.data(), static_cast<Eigen::Index>(width_), static_cast<Eigen::Index>(count_));
  values_.clear();
  count_ = 0;
  return frames;
}

void FrameTextParser::finish() const {
  if (width_ == 0) throw Failure(what_ + ": holds no frames");
}

void FrameTextParser::skipBlanks() {
  position_ = std::min(line_.find_first_not_of(kBlanks, position_), line_.size());
}

// Blanks with at most one comma among them. Blanks alone may end the line, a comma may not.
bool FrameTextParser::skipSeparator() {
  skipBlanks();
  if (atEnd()) return false;
  if (line_[position_] != ',') return true;
  ++position_;
  skipBlanks();
  return true;
}

void FrameTextParser::parseNumber() {
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
float FrameTextParser::outOfRange(std::string_view digits, std::string_view word) const {
  double value = 0;
  const std::from_chars_result result =
      parseWord(digits.data(), digits.data() + digits.size(), value);
  const auto rounded = static_cast<float>(value);
  if (result.ec != std::errc() || std::isinf(rounded)) {
    fail("a number in the range of 32-bit floats", word);
  }
  return rounded;
}

void FrameTextParser::fail(const std::string& expected, std::string_view found) const {
  constexpr std::size_t kShown = 40;
  throw Failure(what_ + ", line " + std::to_string(lineNumber_) + ", column " +
                std::to_string(position_ + 1) + ": expected " + expected + ", found " +
                (found.empty() ? (atEnd() ? "the end of the line" : "','")
                               : inQuotes(found.substr(0, kShown))));
}

}  // namespace mlnn
