// How the library's own code makes a message (layers/Messages.h tells who hears it).
#pragma once

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <string>
#include <string_view>
#include <type_traits>

namespace mlnn {

// A part of a message: text as it is, or a number in decimal digits.
class MessagePiece {
 public:
  MessagePiece(const char* text) : text_(text == nullptr ? "" : text) {}
  MessagePiece(const std::string& text) : text_(text) {}
  template <typename Integer, typename = std::enable_if_t<std::is_integral_v<Integer>>>
  MessagePiece(Integer number) : MessagePiece(number < 0, magnitude(number)) {
    static_assert(!std::is_same_v<Integer, char> && !std::is_same_v<Integer, bool>);
  }
  MessagePiece(const MessagePiece&) = delete;  // the text may lie within
  MessagePiece& operator=(const MessagePiece&) = delete;

  std::string_view text() const { return text_; }

 private:
  MessagePiece(bool isNegative, uint64_t magnitude);

  template <typename Integer>
  static uint64_t magnitude(Integer number) {
    const auto value = static_cast<uint64_t>(number);
    return number < 0 ? uint64_t{0} - value : value;
  }

  char digits_[20];  // the longest number: a sign and 19 digits, or 20 digits
  std::string_view text_;
};

// Hands on the message that the pieces make together; a line feed comes by itself. How the text
// begins decides its severity.
// Takes no memory for a text below 256 bytes that nobody collects; std::bad_alloc else passes
// through.
void report(std::initializer_list<MessagePiece> pieces);

// The same for the one line that goes to stdio's stderr where others go to std::cerr.
void reportByStdio(const char* text);

// Lets messages go to std::cerr from now on, where they went to stdio's stderr. What has a use for
// iostreams anyway calls it; a program without any is spared them.
// Returns: true.
bool reportToStandardErrorStream();

// For that alone: what shows a line, which has its line feed, in one write.
using LinePrinter = void (*)(const char* line, std::size_t length);
void setLinePrinter(LinePrinter printer);

}  // namespace mlnn
