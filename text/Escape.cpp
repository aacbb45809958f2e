#include "text/Escape.h"

#include <algorithm>
#include <cstdint>

namespace mlnn {
namespace {

// A character taken from the front of a text; `length` is 0 where that is not UTF-8.
struct Decoded {
  uint32_t character = 0;
  std::size_t length = 0;
};

uint32_t byteAt(std::string_view text, std::size_t i) {
  return static_cast<unsigned char>(text[i]);
}

// How many bytes a character takes that begins with `first`; 0 for a byte that begins none.
std::size_t sequenceLength(uint32_t first) {
  if (first < 0x80) return 1;
  if (first >= 0xC2 && first <= 0xDF) return 2;
  if (first >= 0xE0 && first <= 0xEF) return 3;
  if (first >= 0xF0 && first <= 0xF4) return 4;
  return 0;
}

// REQUIRES: text is not empty.
Decoded decodeFirst(std::string_view text) {
  const uint32_t first = byteAt(text, 0);
  const std::size_t length = sequenceLength(first);
  if (length == 0 || length > text.size()) return {};
  if (length == 1) return {first, 1};
  uint32_t character = first & (0x7Fu >> length);
  for (std::size_t i = 1; i < length; ++i) {
    if ((byteAt(text, i) & 0xC0) != 0x80) return {};
    character = character << 6 | (byteAt(text, i) & 0x3F);
  }
  constexpr uint32_t kSmallest[] = {0, 0, 0x80, 0x800, 0x10000};
  const bool isSurrogate = character >= 0xD800 && character <= 0xDFFF;
  if (character < kSmallest[length] || isSurrogate || character > 0x10FFFF) return {};
  return {character, length};
}

bool isControl(uint32_t c) { return c < 0x20 || (c >= 0x7F && c <= 0x9F); }

// Characters that show nothing or reorder what stands around them.
bool isInvisible(uint32_t c) {
  struct Range {
    uint32_t first, last;
  };
  constexpr Range kRanges[] = {
      {0x00AD, 0x00AD},    // soft hyphen
      {0x061C, 0x061C},    // Arabic letter mark
      {0x200B, 0x200F},    // zero-width characters, direction marks
      {0x2028, 0x202E},    // line and paragraph separators, direction overrides
      {0x2060, 0x206F},    // word joiner, direction isolates
      {0xFE00, 0xFE0F},    // variation selectors
      {0xFEFF, 0xFEFF},    // byte order mark
      {0xFFF9, 0xFFFB},    // interlinear annotation
      {0xE0000, 0xE0FFF},  // tags, more variation selectors
  };
  return std::any_of(std::begin(kRanges), std::end(kRanges),
                     [c](const Range& range) { return c >= range.first && c <= range.last; });
}

std::string hex(uint32_t value, int minDigits) {
  std::string digits;
  for (; value != 0 || minDigits > 0; value >>= 4, --minDigits) {
    digits.insert(digits.begin(), "0123456789abcdef"[value & 0xF]);
  }
  return digits;
}

void appendByte(std::string& out, uint32_t byte) { out += "\\x" + hex(byte, 2); }

void appendCharacter(std::string& out, std::string_view bytes, uint32_t character) {
  if (character == '\\') {
    out += "\\\\";
  } else if (character == '\t') {
    out += "\\t";
  } else if (character == '\n') {
    out += "\\n";
  } else if (character == '\r') {
    out += "\\r";
  } else if (isControl(character)) {
    for (std::size_t i = 0; i < bytes.size(); ++i) appendByte(out, byteAt(bytes, i));
  } else if (isInvisible(character)) {
    out += "\\u{" + hex(character, 4) + "}";
  } else {
    out += bytes;
  }
}

}  // namespace

std::string escaped(std::string_view text) {
  std::string out;
  while (!text.empty()) {
    const Decoded decoded = decodeFirst(text);
    if (decoded.length == 0) {
      appendByte(out, byteAt(text, 0));
      text.remove_prefix(1);
      continue;
    }
    appendCharacter(out, text.substr(0, decoded.length), decoded.character);
    text.remove_prefix(decoded.length);
  }
  return out;
}

std::string inQuotes(std::string_view text) { return "'" + escaped(text) + "'"; }

std::string shortened(std::string_view text) {
  constexpr std::size_t kShown = 160;
  if (text.size() <= kShown) return escaped(text);
  std::size_t end = kShown;
  while (end > 0 && (text[end] & 0xC0) == 0x80) --end;  // not inside a UTF-8 character
  return escaped(text.substr(0, end)) + "... (" + std::to_string(text.size()) + " bytes)";
}

}  // namespace mlnn
