#include "text/Numbers.h"

#include <array>
#include <charconv>

namespace mlnn {
namespace {

std::string numberText(double value, std::chars_format format, int digits) {
  std::array<char, 400> text;  // the largest double has 309 digits before the point
  const std::to_chars_result result =
      std::to_chars(text.data(), text.data() + text.size(), value, format, digits);
  return std::string(text.data(), result.ptr);
}

}  // namespace

std::string generalNumber(double value, int digits) {
  return numberText(value, std::chars_format::general, digits);
}

std::string fixedNumber(double value, int digits) {
  return numberText(value, std::chars_format::fixed, digits);
}

std::string counted(std::size_t number, const std::string& what) {
  return std::to_string(number) + " " + what + (number == 1 ? "" : "s");
}

}  // namespace mlnn
