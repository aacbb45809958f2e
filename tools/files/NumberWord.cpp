#include "tools/files/NumberWord.h"

namespace mlnn {

std::from_chars_result parseWord(const char* text, const char* end, float& value) {
  return std::from_chars(text, end, value);
}

std::from_chars_result parseWord(const char* text, const char* end, double& value) {
  return std::from_chars(text, end, value);
}

}  // namespace mlnn
