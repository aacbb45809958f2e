// parseWord — a number at the beginning of a text, as std::from_chars reads it in the general form.
//
// NumberWord.cpp takes it from the standard library; where that reads no floating-point numbers,
// CMake takes NumberWordByHand.cpp in its place.
#pragma once

#include <charconv>

namespace mlnn {

// Reads what it can of the text: [-]digits[.digits][e[+-]digits], inf, infinity, nan or nan(...).
// Returns: as std::from_chars; a number too small or too large for the type may be out of range,
// and then `value` is unchanged.
std::from_chars_result parseWord(const char* text, const char* end, float& value);
std::from_chars_result parseWord(const char* text, const char* end, double& value);

}  // namespace mlnn
