#include "tools/reports/InkedLine.h"

namespace mlnn {
namespace {

constexpr char kEscape = '\x1b';
constexpr char kEndOfColour = 'm';

// The sequence that begins a colour.
const char* sequenceOf(Ink ink) {
  switch (ink) {
    case Ink::kGreen:
      return "\x1b[32m";
    case Ink::kYellow:
      return "\x1b[33m";
    case Ink::kCyan:
      return "\x1b[36m";
    case Ink::kPlain:
      break;
  }
  return "\x1b[0m";
}

}  // namespace

void InkedLine::add(const std::string& text, Ink ink) {
  if (text.find_first_not_of(' ') == std::string::npos) {
    blanks_ += text;
    return;
  }
  line_ += blanks_;
  blanks_.clear();
  if (hasColours_ && ink != ink_) line_ += sequenceOf(ink);
  ink_ = ink;
  line_ += text;
}

std::string InkedLine::text() const {
  return hasColours_ && ink_ != Ink::kPlain ? line_ + sequenceOf(Ink::kPlain) : line_;
}

std::size_t shownWidth(const std::string& text) {
  std::size_t width = 0;
  bool isColour = false;
  for (const char c : text) {
    if (c == kEscape) isColour = true;
    const bool continues = (c & 0xC0) == 0x80;
    if (!isColour && !continues) ++width;
    if (c == kEndOfColour) isColour = false;
  }
  return width;
}

}  // namespace mlnn
