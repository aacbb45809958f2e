#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <string>
#include <system_error>

#include "tools/files/NumberWord.h"

// strtod reads more than is wanted: blanks, a plus and hexadecimal numbers. What it takes for a
// point is the locale's, which the tool leaves as it is in the beginning.

namespace mlnn {
namespace {

bool canBegin(char first) {
  return first == '-' || first == '.' || (first >= '0' && first <= '9') || first == 'i' ||
         first == 'I' || first == 'n' || first == 'N';
}

// The text up to where a hexadecimal number would begin to be one.
std::string decimalPart(const char* text, const char* end) {
  const std::string all(text, end);
  const std::size_t digits = !all.empty() && all[0] == '-' ? 1 : 0;
  const bool isHex = all.size() > digits + 1 && all[digits] == '0' &&
                     (all[digits + 1] == 'x' || all[digits + 1] == 'X');
  return isHex ? all.substr(0, digits + 1) : all;
}

template <typename Float, typename Convert>
std::from_chars_result parse(const char* text, const char* end, Float& value,
                             const Convert& convert) {
  const std::string part = decimalPart(text, end);
  if (part.empty() || !canBegin(part[0])) return {text, std::errc::invalid_argument};
  char* behind = nullptr;
  errno = 0;
  const Float converted = convert(part.c_str(), &behind);
  if (behind == part.c_str()) return {text, std::errc::invalid_argument};
  const char* const next = text + (behind - part.c_str());
  if (errno == ERANGE) return {next, std::errc::result_out_of_range};
  value = converted;
  return {next, std::errc()};
}

}  // namespace

std::from_chars_result parseWord(const char* text, const char* end, float& value) {
  return parse(text, end, value, std::strtof);
}

std::from_chars_result parseWord(const char* text, const char* end, double& value) {
  return parse(text, end, value, std::strtod);
}

}  // namespace mlnn
