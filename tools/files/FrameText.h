// FrameText — frames of features as text, a line at a time.
#pragma once

#include <Eigen/Core>
#include <cstddef>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace mlnn {

// One frame a line, numbers separated by blanks, tabs or one comma. Blank lines and lines that
// begin with "#" are skipped, a carriage return at the end is ignored.
class FrameTextParser {
 public:
  // `what` names the text in messages.
  explicit FrameTextParser(std::string what) : what_(std::move(what)) {}

  // Takes the next line, without its line feed.
  // Throws: Failure that says what was expected and what was found, with line and column.
  void addLine(std::string_view line);

  // Takes all lines of a text.
  void addLines(std::string_view text);

  // How many values a frame has; 0 before there was one.
  std::size_t width() const { return width_; }

  // How many frames there are that nobody has taken.
  std::size_t count() const { return count_; }

  // Returns these, values x frames.
  Eigen::MatrixXf take();

  // Throws: Failure when there was no frame at all.
  void finish() const;

 private:
  bool atEnd() const { return position_ == line_.size(); }
  void skipBlanks();
  bool skipSeparator();
  void parseNumber();
  float outOfRange(std::string_view digits, std::string_view word) const;
  [[noreturn]] void fail(const std::string& expected, std::string_view found) const;

  std::string what_;
  std::string_view line_;
  std::size_t position_ = 0;  // in line_
  std::size_t lineNumber_ = 0;
  std::vector<float> values_;
  std::size_t width_ = 0;
  std::size_t count_ = 0;
};

}  // namespace mlnn
