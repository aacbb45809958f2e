// PlacedStream — reads a text in memory through stream extraction, as the reader of the text
// format does, and knows where it stands.
#pragma once

#include <algorithm>
#include <cstddef>
#include <istream>
#include <locale>
#include <streambuf>
#include <string>
#include <string_view>

namespace mlnn {

// White space of the classic locale.
inline bool isSpace(char c) { return c == ' ' || (c >= '\t' && c <= '\r'); }

// The text must outlive the stream.
class PlacedStream : private std::streambuf {
 public:
  explicit PlacedStream(std::string_view text) : text_(text), in_(this) {
    char* const begin = const_cast<char*>(text.data());  // a get area is never written to
    setg(begin, begin, begin + text.size());
    in_.imbue(std::locale::classic());
  }

  // The offset of the next character.
  std::size_t position() const { return static_cast<std::size_t>(gptr() - eback()); }

  // The offset at which the last word, number or line to be read begins.
  std::size_t start() const { return start_; }

  // Reads a word or a number. Returns whether there was one.
  template <typename Value>
  bool read(Value& value) {
    start_ = static_cast<std::size_t>(
        std::find_if_not(text_.begin() + static_cast<std::ptrdiff_t>(position()), text_.end(),
                         isSpace) -
        text_.begin());
    return static_cast<bool>(in_ >> value);
  }

  // Reads the rest of the current line, without its line feed; empty where nothing is left.
  std::string readLine() {
    start_ = position();
    std::string line;
    std::getline(in_, line);
    return line;
  }

  // Whether the next character is `c`; it is not taken.
  bool nextIs(char c) { return in_.peek() == std::char_traits<char>::to_int_type(c); }

  // Whether a read has met the end of the text.
  bool metEnd() const { return in_.eof(); }

 private:
  std::string_view text_;
  std::istream in_;
  std::size_t start_ = 0;
};

}  // namespace mlnn
