#include "analysis/diagnosis/TextWords.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <limits>

#include "analysis/diagnosis/PlacedStream.h"
#include "text/Escape.h"
#include "text/TextParts.h"

namespace mlnn {
namespace {

constexpr std::size_t kMaxExcerpt = 60;  // bytes of the file that a message shows

bool isNonFiniteWord(const std::string& word) {
  const bool isSigned = !word.empty() && (word[0] == '-' || word[0] == '+');
  std::string lower = word.substr(isSigned ? 1 : 0);
  for (char& c : lower) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  }
  return lower == "inf" || lower == "infinity" || startsWith(lower, "nan");
}

// Whether the word is a number as such, though not one that fits a 32-bit float.
bool isTooLarge(const std::string& word) {
  char* end = nullptr;
  const double value = std::strtod(word.c_str(), &end);
  return !word.empty() && *end == '\0' && std::fabs(value) > std::numeric_limits<float>::max();
}

}  // namespace

std::pair<Word, Word> firstTwoWords(const std::string& line) {
  Word words[2];
  std::size_t end = 0;
  for (Word& word : words) {
    word.offset = std::min(line.find_first_not_of(kWhiteSpace, end), line.size());
    end = std::min(line.find_first_of(kWhiteSpace, word.offset), line.size());
    word.text = line.substr(word.offset, end - word.offset);
  }
  return {words[0], words[1]};
}

std::string wordAt(std::string_view text, std::size_t offset) {
  const std::size_t end = std::min(text.find_first_of(kWhiteSpace, offset), text.size());
  return std::string(text.substr(offset, end - offset));
}

std::string wordAround(std::string_view text, std::size_t offset) {
  const std::size_t before = text.find_last_of(kWhiteSpace, offset);
  return wordAt(text, before == std::string_view::npos ? 0 : before + 1);
}

bool isInsideWord(std::string_view text, std::size_t offset) {
  return offset > 0 && offset < text.size() && !isSpace(text[offset - 1]);
}

std::string excerpt(std::string_view text) {
  if (text.size() <= kMaxExcerpt) return inQuotes(text);
  return inQuotes(text.substr(0, kMaxExcerpt)) + " and more";
}

std::string whyNoNumber(const std::string& word) {
  if (isNonFiniteWord(word)) return "the text format cannot hold values that are not finite";
  if (isTooLarge(word)) return "the number is too large for a 32-bit float";
  return "";
}

std::string carriageReturnHint(std::string_view line) {
  return endsWith(line, "\r") ? "the line ends in a carriage return; lines end in a line feed alone"
                              : "";
}

}  // namespace mlnn
