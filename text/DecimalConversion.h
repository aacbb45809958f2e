// DecimalConversion — floating-point numbers from and to decimal text, each rounded once and in no
// locale. DecimalConversion.cpp takes them from the standard library; where that has none for
// floating point, CMake takes DecimalConversionByHand.cpp in its place, with the same results.
// Internal: not installed.
#pragma once

namespace mlnn {

// Reads the nearest float of a decimal number that takes all of the text:
// [-]digits[.digits][e[+-]digits].
// Returns: whether it is one that a float can hold; else `value` is unchanged. What is too large,
// or rounds to 0 and isn't, can't be held. REQUIRES: the digits of the exponent are at most four.
bool readDecimal(const char* text, const char* end, float& value);

// What the longest double takes with up to 80 digits: a sign, 309 digits, a point, and those behind
// it. A float takes no more with any number of digits.
inline constexpr int kLongestDecimal = 311 + 80;

// Writes `value` as printf's "%.*g" does in the classic locale, with `digits` significant ones; no
// NUL is written. Returns: the position behind the text.
// REQUIRES, here and below: there is room for the text, which is no longer than kLongestDecimal;
// digits is at least 1, and for writeFixedPoint 0.
char* writeGeneral(char* out, double value, int digits);

// The same as "%.*f" does, with so many digits behind the point.
char* writeFixedPoint(char* out, double value, int digits);

}  // namespace mlnn
