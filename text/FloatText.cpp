#include "text/FloatText.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>

#include "text/DecimalConversion.h"

namespace mlnn {
namespace {

// Powers of ten up to what scales the smallest float to kMaxFastDigits digits. From 1e23 on
// they are the nearest doubles.
constexpr double kPowersOfTen[] = {1e0,  1e1,  1e2,  1e3,  1e4,  1e5,  1e6,  1e7,  1e8,  1e9,  1e10,
                                   1e11, 1e12, 1e13, 1e14, 1e15, 1e16, 1e17, 1e18, 1e19, 1e20, 1e21,
                                   1e22, 1e23, 1e24, 1e25, 1e26, 1e27, 1e28, 1e29, 1e30, 1e31, 1e32,
                                   1e33, 1e34, 1e35, 1e36, 1e37, 1e38, 1e39, 1e40, 1e41, 1e42, 1e43,
                                   1e44, 1e45, 1e46, 1e47, 1e48, 1e49, 1e50, 1e51, 1e52, 1e53};

// digits * 10^(exponent - count + 1), with exactly `count` digits.
struct Rounded {
  uint32_t digits;
  int count;
  int exponent;
};

double timesPowerOfTen(double value, int power) {
  return power < 0 ? value / kPowersOfTen[-power] : value * kPowersOfTen[power];
}

// Returns floor(log10(2^k)) of the power of two below a normal value: floor(log10(value)), or
// one less.
int decimalExponentBelow(double value) {
  uint64_t bits;
  std::memcpy(&bits, &value, sizeof bits);
  const int binaryExponent = static_cast<int>(bits >> 52) - 1023;
  return (binaryExponent * 78913) >> 18;  // log10(2) in units of 2^-18; the shift rounds down
}

// Rounds a positive value to `count` digits. The scaled value has an error of two roundings, at
// most 2^-52 of less than 10^9; where its fraction is nearer to one half than some of those,
// rounding could go wrong, and false is returned.
bool roundToDigits(double value, int count, Rounded& rounded) {
  constexpr double kUncertain = 1e-6;
  int exponent = decimalExponentBelow(value);
  double scaled = timesPowerOfTen(value, count - 1 - exponent);
  if (scaled >= kPowersOfTen[count]) scaled = timesPowerOfTen(value, count - 1 - ++exponent);
  auto digits = static_cast<uint32_t>(scaled);
  const double fraction = scaled - digits;
  if (std::abs(fraction - 0.5) < kUncertain) return false;
  if (fraction > 0.5) ++digits;
  if (digits >= kPowersOfTen[count]) {
    digits /= 10;
    ++exponent;
  }
  rounded = {digits, count, exponent};
  return true;
}

void dropTrailingZeros(Rounded& rounded) {
  while (rounded.digits % 10 == 0) {
    rounded.digits /= 10;
    --rounded.count;
  }
}

constexpr char kDigitPairs[] =
    "0001020304050607080910111213141516171819"
    "2021222324252627282930313233343536373839"
    "4041424344454647484950515253545556575859"
    "6061626364656667686970717273747576777879"
    "8081828384858687888990919293949596979899";

char* writeDigits(char* out, uint32_t digits, int count) {
  char* position = out + count;
  for (; position - out >= 2; digits /= 100) {
    position -= 2;
    std::memcpy(position, kDigitPairs + std::size_t{2} * (digits % 100), 2);
  }
  if (position != out) *out = static_cast<char>('0' + digits);
  return out + count;
}

char* writeZeros(char* out, int count) { return std::fill_n(out, std::max(count, 0), '0'); }

// Digits with the point behind the first `before` of them.
char* writeWithPoint(char* out, const Rounded& rounded, int before) {
  writeDigits(out + 1, rounded.digits, rounded.count);
  std::copy_n(out + 1, before, out);
  if (before == rounded.count) return out + before;
  out[before] = '.';
  return out + rounded.count + 1;
}

char* writeFixed(char* out, const Rounded& rounded) {
  if (rounded.exponent < 0) {
    *out++ = '0';
    *out++ = '.';
    out = writeZeros(out, -rounded.exponent - 1);
    return writeDigits(out, rounded.digits, rounded.count);
  }
  const int before = rounded.exponent + 1;
  if (before < rounded.count) return writeWithPoint(out, rounded, before);
  out = writeDigits(out, rounded.digits, rounded.count);
  return writeZeros(out, before - rounded.count);
}

char* writeScientific(char* out, const Rounded& rounded) {
  out = writeWithPoint(out, rounded, 1);
  *out++ = 'e';
  *out++ = rounded.exponent < 0 ? '-' : '+';
  return writeDigits(out, static_cast<uint32_t>(std::abs(rounded.exponent)), 2);
}

}  // namespace

char* formatFloat(char* out, float value, int precision) {
  const double magnitude = std::abs(double{value});
  if (precision > kMaxFastDigits || !std::isfinite(value)) {
    return writeGeneral(out, double{value}, precision);
  }
  char* const begin = out;
  if (std::signbit(value)) *out++ = '-';
  if (magnitude == 0) {
    *out++ = '0';
    return out;
  }
  Rounded rounded;
  if (!roundToDigits(magnitude, precision, rounded))
    return writeGeneral(begin, double{value}, precision);
  dropTrailingZeros(rounded);
  const bool isFixed = rounded.exponent >= -4 && rounded.exponent < precision;
  return isFixed ? writeFixed(out, rounded) : writeScientific(out, rounded);
}

}  // namespace mlnn
