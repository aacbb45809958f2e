#include "text/DecimalConversion.h"

#include <charconv>
#include <system_error>

namespace mlnn {

bool readDecimal(const char* text, const char* end, float& value) {
  float converted = 0;
  const std::from_chars_result result = std::from_chars(text, end, converted);
  if (result.ec != std::errc() || result.ptr != end) return false;
  value = converted;
  return true;
}

char* writeGeneral(char* out, double value, int digits) {
  return std::to_chars(out, out + kLongestDecimal, value, std::chars_format::general, digits).ptr;
}

char* writeFixedPoint(char* out, double value, int digits) {
  return std::to_chars(out, out + kLongestDecimal, value, std::chars_format::fixed, digits).ptr;
}

}  // namespace mlnn
