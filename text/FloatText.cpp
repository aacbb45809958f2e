#include "text/FloatText.h"

#include <cmath>
#include <cstdint>
#include <cstring>

#include "os/Builtins.h"
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

// The nearest doubles of the powers that part floats with different exponents.
constexpr int kSmallestExponent = -45;
constexpr double kFromExponent[] = {
    1e-45, 1e-44, 1e-43, 1e-42, 1e-41, 1e-40, 1e-39, 1e-38, 1e-37, 1e-36, 1e-35, 1e-34, 1e-33,
    1e-32, 1e-31, 1e-30, 1e-29, 1e-28, 1e-27, 1e-26, 1e-25, 1e-24, 1e-23, 1e-22, 1e-21, 1e-20,
    1e-19, 1e-18, 1e-17, 1e-16, 1e-15, 1e-14, 1e-13, 1e-12, 1e-11, 1e-10, 1e-9,  1e-8,  1e-7,
    1e-6,  1e-5,  1e-4,  1e-3,  1e-2,  1e-1,  1e0,   1e1,   1e2,   1e3,   1e4,   1e5,   1e6,
    1e7,   1e8,   1e9,   1e10,  1e11,  1e12,  1e13,  1e14,  1e15,  1e16,  1e17,  1e18,  1e19,
    1e20,  1e21,  1e22,  1e23,  1e24,  1e25,  1e26,  1e27,  1e28,  1e29,  1e30,  1e31,  1e32,
    1e33,  1e34,  1e35,  1e36,  1e37,  1e38,  1e39};

constexpr uint32_t kWholePowersOfTen[] = {1,      10,      100,      1000,      10000,
                                          100000, 1000000, 10000000, 100000000, 1000000000};

// 0.DIGITS * 10^(exponent + 1), with kMaxFastDigits digits, of which the last may be zeros.
struct Rounded {
  uint32_t digits;
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

int decimalExponentOf(double value) {
  const int below = decimalExponentBelow(value);
  return below + (value >= kFromExponent[below + 1 - kSmallestExponent] ? 1 : 0);
}

// Rounds a positive value to `count` digits. The scaled value has an error of two roundings, at
// most 2^-52 of less than 10^9; where its fraction is nearer to one half than some of those,
// rounding could go wrong, and false is returned.
bool roundToDigits(double value, int count, Rounded& rounded) {
  constexpr double kUncertain = 1e-6;
  const int exponent = decimalExponentOf(value);
  const double scaled = timesPowerOfTen(value, count - 1 - exponent);
  const auto digits = static_cast<uint32_t>(static_cast<int64_t>(scaled + 0.5));
  if (0.5 - std::abs(scaled - digits) < kUncertain) return false;
  const bool carries = digits == kWholePowersOfTen[count];
  rounded.digits = (carries ? digits / 10 : digits) * kWholePowersOfTen[kMaxFastDigits - count];
  rounded.exponent = exponent + (carries ? 1 : 0);
  return true;
}

// The lowest one first: processors that have it highest are refused (layers/ByteIo.h).
void putBytes(char* out, uint64_t bytes) { std::memcpy(out, &bytes, sizeof bytes); }

// Returns the eight digits of a number, each in a byte, the first one lowest: halves by halves,
// with the quotients of several parts in one multiplication.
uint64_t eightDigits(uint32_t number) {
  const uint64_t fours = uint64_t{number / 10000} | uint64_t{number % 10000} << 32;
  const uint64_t hundreds = (fours * 5243 >> 19) & 0x0000007F0000007F;  // by 100
  const uint64_t twos = hundreds | (fours - 100 * hundreds) << 16;
  const uint64_t tens = (twos * 103 >> 10) & 0x000F000F000F000F;  // by 10
  return tens | (twos - 10 * tens) << 8;
}

// How many of eight digits stand before the zeros at their end.
int countWithoutZeros(uint64_t digits) { return digits == 0 ? 0 : (71 - zerosAbove(digits)) >> 3; }

// The text of kMaxFastDigits digits, in registers: memory would have to wait for its parts.
struct DigitText {
  explicit DigitText(uint32_t number) {
    constexpr uint32_t kBehindFirst = 100000000;
    static_assert(kMaxFastDigits == 9);
    const uint64_t values = eightDigits(number % kBehindFirst);
    first = static_cast<char>('0' + number / kBehindFirst);
    rest = values + 0x3030303030303030;
    count = 1 + countWithoutZeros(values);
  }

  char first;
  uint64_t rest;  // as eightDigits has them
  int count;      // without zeros at the end
};

char* writeFixed(char* out, const DigitText& digits, int exponent) {
  if (exponent < 0) {
    std::memcpy(out, "0.000000", 8);
    out += 1 - exponent;
    *out = digits.first;
    putBytes(out + 1, digits.rest);
    return out + digits.count;
  }
  const int before = exponent + 1;
  *out = digits.first;
  putBytes(out + 1, digits.rest);
  if (before >= digits.count) return out + before;
  out[before] = '.';
  putBytes(out + before + 1, digits.rest >> (8 * exponent));
  return out + digits.count + 1;
}

char* writeScientific(char* out, const DigitText& digits, int exponent) {
  out[0] = digits.first;
  out[1] = '.';
  putBytes(out + 2, digits.rest);
  out += digits.count + (digits.count > 1 ? 1 : 0);
  const int magnitude = std::abs(exponent);
  *out++ = 'e';
  *out++ = exponent < 0 ? '-' : '+';
  *out++ = static_cast<char>('0' + magnitude / 10);
  *out++ = static_cast<char>('0' + magnitude % 10);
  return out;
}

}  // namespace

char* formatFloat(char* out, float value, int precision) {
  const double magnitude = std::abs(double{value});
  if (precision > kMaxFastDigits || !std::isfinite(value)) {
    return writeGeneral(out, double{value}, precision);
  }
  char* const begin = out;
  *out = '-';
  out += std::signbit(value) ? 1 : 0;
  if (magnitude == 0) {
    *out++ = '0';
    return out;
  }
  Rounded rounded;
  if (!roundToDigits(magnitude, precision, rounded))
    return writeGeneral(begin, double{value}, precision);
  const DigitText digits(rounded.digits);
  const bool isFixed = rounded.exponent >= -4 && rounded.exponent < precision;
  return isFixed ? writeFixed(out, digits, rounded.exponent)
                 : writeScientific(out, digits, rounded.exponent);
}

}  // namespace mlnn
