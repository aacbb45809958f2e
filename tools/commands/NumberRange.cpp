#include "tools/commands/NumberRange.h"

#include <cmath>
#include <string>
#include <system_error>

#include "text/Escape.h"
#include "text/Numbers.h"
#include "tools/files/NumberWord.h"

namespace mlnn {
namespace {

bool isInRange(const std::string& text, double smallest, double largest) {
  double value = 0;
  const char* end = text.data() + text.size();
  const std::from_chars_result result = parseWord(text.data(), end, value);
  return result.ec == std::errc() && result.ptr == end && value >= smallest && value <= largest;
}

std::string describe(double smallest, double largest) {
  const std::string from = generalNumber(smallest, kExactDigits);
  if (std::isinf(largest)) return "a number of at least " + from;
  return "a number from " + from + " to " + generalNumber(largest, kExactDigits);
}

}  // namespace

ValueCheck numberRange(double smallest, double largest) {
  return [smallest, largest](const std::string& text) {
    if (isInRange(text, smallest, largest)) return std::string();
    return "expected " + describe(smallest, largest) + ", found " + inQuotes(text);
  };
}

}  // namespace mlnn
