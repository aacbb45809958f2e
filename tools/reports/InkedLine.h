// InkedLine — a line for a terminal, put together of parts in colours.
#pragma once

#include <cstddef>
#include <string>

namespace mlnn {

enum class Ink { kPlain, kGreen, kYellow, kCyan };

// Without colours the line is its text alone. Blanks take no colour, and those at the end are left
// out.
class InkedLine {
 public:
  explicit InkedLine(bool hasColours) : hasColours_(hasColours) {}

  void add(const std::string& text, Ink ink = Ink::kPlain);

  // Returns the line so far, which ends in the terminal's own colour.
  std::string text() const;

 private:
  bool hasColours_;
  Ink ink_ = Ink::kPlain;
  std::string line_;
  std::string blanks_;  // behind the line, if something follows
};

// Returns the characters that a UTF-8 text takes on a terminal, which its colours do not.
std::size_t shownWidth(const std::string& text);

}  // namespace mlnn
