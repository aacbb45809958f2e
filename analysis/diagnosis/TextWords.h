// The words of a text model file, and how messages show them.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <utility>

namespace mlnn {

// What separates words, as in the classic locale.
inline constexpr char kWhiteSpace[] = " \t\n\v\f\r";

// A word of a line, with its offset in it.
struct Word {
  std::string text;
  std::size_t offset = 0;
};

// Returns the first two words of a line; empty, at its end, where there are fewer.
std::pair<Word, Word> firstTwoWords(const std::string& line);

// Returns the word that begins at the offset; "" where white space or nothing stands.
std::string wordAt(std::string_view text, std::size_t offset);

// Returns the whole word that the offset is in, however far from its beginning.
std::string wordAround(std::string_view text, std::size_t offset);

// Whether the offset is within a word: not its beginning, and not the end of the text.
bool isInsideWord(std::string_view text, std::size_t offset);

// Returns the text in quotes, of a long one only the beginning.
std::string excerpt(std::string_view text);

// Returns why a word that should be a number in a text is none that can be read: it is not
// finite, or too large. Returns "" where neither is the reason.
std::string whyNoNumber(const std::string& word);

// Returns what to say of a line that ends in a carriage return, "" of any other.
std::string carriageReturnHint(std::string_view line);

}  // namespace mlnn
