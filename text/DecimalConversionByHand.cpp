// In whole numbers of as many digits as it takes: slow, and exact.
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <limits>

#include "text/DecimalConversion.h"

namespace mlnn {
namespace {

// 2^53 * 5^1074 has 767 digits, and no double more.
constexpr int kMostDigits = 780;

// A positive number in decimal: 0.d1 d2 d3 ... * 10^exponent, of which the first digit is not 0.
struct Digits {
  uint8_t values[kMostDigits];
  int count = 0;
  int exponent = 0;

  int at(int index) const { return index < count ? values[index] : 0; }
};

void dropZerosAtTheEnd(Digits& digits) {
  while (digits.count > 0 && digits.values[digits.count - 1] == 0) --digits.count;
}

// A whole number, nine digits a limb, the lowest limb first.
class Whole {
 public:
  explicit Whole(uint64_t value) {
    for (; value != 0; value /= kBase) limbs_[count_++] = static_cast<uint32_t>(value % kBase);
  }

  void multiply(uint32_t factor) {
    uint64_t carry = 0;
    for (int i = 0; i < count_; ++i) {
      carry += uint64_t{limbs_[i]} * factor;
      limbs_[i] = static_cast<uint32_t>(carry % kBase);
      carry /= kBase;
    }
    for (; carry != 0; carry /= kBase) limbs_[count_++] = static_cast<uint32_t>(carry % kBase);
  }

  // Multiplies by base^power.
  void multiplyByPower(uint32_t base, int power) {
    constexpr uint32_t kLargest = std::numeric_limits<uint32_t>::max();
    uint32_t factor = 1;
    for (; power > 0; --power) {
      if (factor > kLargest / base) {
        multiply(factor);
        factor = 1;
      }
      factor *= base;
    }
    multiply(factor);
  }

  // Puts all digits into `digits`, as a whole number of which the last `behind` lie behind the
  // point.
  void putDigits(Digits& digits, int behind) const {
    digits.count = 0;
    for (int i = count_ - 1; i >= 0; --i) {
      for (uint32_t unit = kBase / 10; unit != 0; unit /= 10) {
        const uint32_t digit = limbs_[i] / unit % 10;
        if (digits.count > 0 || digit > 0) {
          digits.values[digits.count++] = static_cast<uint8_t>(digit);
        }
      }
    }
    digits.exponent = digits.count - behind;
  }

 private:
  static constexpr uint32_t kBase = 1000000000;

  uint32_t limbs_[kMostDigits / 9 + 2];
  int count_ = 0;
};

// All digits of a positive finite value; the last one is not 0.
void expand(double value, Digits& digits) {
  int exponent = 0;
  const double fraction = std::frexp(value, &exponent);
  auto mantissa = static_cast<uint64_t>(std::ldexp(fraction, 53));
  exponent -= 53;
  for (; mantissa % 2 == 0; mantissa /= 2) ++exponent;
  Whole whole(mantissa);
  if (exponent >= 0) {
    whole.multiplyByPower(2, exponent);
    whole.putDigits(digits, 0);
  } else {  // m / 2^n is m * 5^n / 10^n
    whole.multiplyByPower(5, -exponent);
    whole.putDigits(digits, -exponent);
  }
  dropZerosAtTheEnd(digits);
}

// --- Writing ---

// Rounds to the nearest number with `count` digits, and of two to the even one. Less than one digit
// leaves none, or the digit 1 before them.
void roundTo(Digits& digits, int count) {
  if (count >= digits.count) return;
  if (count < 0) {
    digits.count = 0;
    return;
  }
  const int next = digits.at(count);
  const bool isTie = next == 5 && count + 1 == digits.count;
  const bool isOdd = count > 0 && digits.at(count - 1) % 2 == 1;
  const bool goesUp = next > 5 || (next == 5 && (!isTie || isOdd));
  digits.count = count;
  if (!goesUp) return;
  int i = count - 1;
  for (; i >= 0 && digits.values[i] == 9; --i) digits.values[i] = 0;
  if (i >= 0) {
    ++digits.values[i];
    return;
  }
  digits.values[0] = 1;  // all were nines, or there were none
  digits.count = std::max(count, 1);
  ++digits.exponent;
}

char* write(char* out, const char* text) {
  const std::size_t length = std::strlen(text);
  std::memcpy(out, text, length);
  return out + length;
}

char* writeDigits(char* out, const Digits& digits, int first, int behind) {
  for (int i = first; i < behind; ++i) {
    *out++ = static_cast<char>('0' + (i < 0 ? 0 : digits.at(i)));
  }
  return out;
}

// `places` digits behind the point.
char* writeWithPoint(char* out, const Digits& digits, int places) {
  const int before = std::max(digits.exponent, 1);  // digits, counted from the point
  out = writeDigits(out, digits, digits.exponent - before, digits.exponent);
  if (places == 0) return out;
  *out++ = '.';
  return writeDigits(out, digits, digits.exponent, digits.exponent + places);
}

char* writeScientific(char* out, const Digits& digits, int exponent) {
  out = writeDigits(out, digits, 0, 1);
  if (digits.count > 1) {
    *out++ = '.';
    out = writeDigits(out, digits, 1, digits.count);
  }
  *out++ = 'e';
  *out++ = exponent < 0 ? '-' : '+';
  const int magnitude = std::abs(exponent);
  if (magnitude >= 100) *out++ = static_cast<char>('0' + magnitude / 100);
  *out++ = static_cast<char>('0' + magnitude / 10 % 10);
  *out++ = static_cast<char>('0' + magnitude % 10);
  return out;
}

// Writes the sign, and all of what has no digits. Returns whether that was all.
bool writeSpecial(char*& out, double value) {
  if (std::signbit(value)) *out++ = '-';
  if (std::isfinite(value)) return false;
  out = write(out, std::isnan(value) ? "nan" : "inf");
  return true;
}

// --- Reading ---

bool isDigit(char c) { return c >= '0' && c <= '9'; }

// Takes digits with at most one point among them. Returns the position behind them; null where
// there is none.
const char* takeDigits(const char* p, const char* end, Digits& digits) {
  bool isBehindPoint = false;
  bool hasDigits = false;
  bool hasMore = false;  // digits that are not kept, and not 0
  for (; p != end && (isDigit(*p) || (*p == '.' && !isBehindPoint)); ++p) {
    if (*p == '.') {
      isBehindPoint = true;
      continue;
    }
    hasDigits = true;
    const bool isLeadingZero = digits.count == 0 && *p == '0';
    if (isLeadingZero == isBehindPoint) digits.exponent += isBehindPoint ? -1 : 1;
    if (isLeadingZero) continue;
    if (digits.count < kMostDigits - 1) {
      digits.values[digits.count++] = static_cast<uint8_t>(*p - '0');
    } else {
      hasMore = hasMore || *p != '0';
    }
  }
  if (hasMore) digits.values[digits.count++] = 1;  // so that it compares as more than what was kept
  return hasDigits ? p : nullptr;
}

// Returns the position behind [e[+-]digits], or `p` where that isn't there.
const char* takeExponent(const char* p, const char* end, Digits& digits) {
  if (p == end || (*p != 'e' && *p != 'E')) return p;
  const char* q = p + 1;
  const bool isNegative = q != end && *q == '-';
  if (q != end && (*q == '-' || *q == '+')) ++q;
  const char* const first = q;
  int exponent = 0;
  for (; q != end && isDigit(*q); ++q) exponent = 10 * exponent + (*q - '0');
  if (q == first) return p;
  digits.exponent += isNegative ? -exponent : exponent;
  return q;
}

// Reads a number without a sign. Returns the position behind it; null where there is none.
const char* parse(const char* p, const char* end, Digits& digits) {
  const char* const behind = takeDigits(p, end, digits);
  if (behind == nullptr) return nullptr;
  dropZerosAtTheEnd(digits);
  return takeExponent(behind, end, digits);
}

// Returns less than 0, 0 or more than 0 where a is less, the same or more than b.
int compare(const Digits& a, const Digits& b) {
  if (a.exponent != b.exponent) return a.exponent < b.exponent ? -1 : 1;
  const int count = std::max(a.count, b.count);
  for (int i = 0; i < count; ++i) {
    if (a.at(i) != b.at(i)) return a.at(i) - b.at(i);
  }
  return 0;
}

constexpr uint32_t kInfinity = 0x7F800000;

// The float with these bits as a double; the one behind the largest for those of infinity.
double floatWith(uint32_t bits) {
  if (bits == kInfinity) return std::ldexp(1.0, 128);
  float value;
  std::memcpy(&value, &bits, sizeof value);
  return double{value};
}

// Whether a number above 0 rounds to the float with these bits, or to a larger one. What lies half
// way to the float below it, which a double holds, goes to the even one.
bool reaches(const Digits& digits, uint32_t bits) {
  if (bits == 0) return true;
  Digits border;
  expand((floatWith(bits - 1) + floatWith(bits)) / 2, border);
  const int difference = compare(digits, border);
  return difference > 0 || (difference == 0 && bits % 2 == 0);
}

// Some float's bits near a number above 0.
uint32_t guess(const Digits& digits) {
  constexpr int kKept = 17;
  double value = 0;
  for (int i = 0; i < kKept; ++i) value = 10 * value + digits.at(i);
  value *= std::pow(10.0, std::clamp(digits.exponent - kKept, -300, 300));
  if (value >= double{std::numeric_limits<float>::max()}) return kInfinity;
  const auto near = static_cast<float>(value);
  uint32_t bits;
  std::memcpy(&bits, &near, sizeof bits);
  return bits;
}

// Returns the bits of the float that a number above 0 rounds to.
uint32_t nearest(const Digits& digits) {
  uint32_t low = guess(digits);
  uint32_t step = 1;
  for (; !reaches(digits, low); step *= 2) low -= std::min(low, step);
  uint32_t beyond = low;
  step = 1;
  do {
    beyond += std::min(kInfinity + 1 - beyond, step);
    step *= 2;
  } while (beyond <= kInfinity && reaches(digits, beyond));
  while (beyond - low > 1) {
    const uint32_t middle = low + (beyond - low) / 2;
    (reaches(digits, middle) ? low : beyond) = middle;
  }
  return low;
}

}  // namespace

bool readDecimal(const char* text, const char* end, float& value) {
  const bool isNegative = text != end && *text == '-';
  Digits digits;
  if (parse(text + (isNegative ? 1 : 0), end, digits) != end) return false;
  uint32_t bits = 0;
  if (digits.count > 0) {
    bits = nearest(digits);
    if (bits == 0 || bits == kInfinity) return false;
  }
  std::memcpy(&value, &bits, sizeof value);
  if (isNegative) value = -value;
  return true;
}

char* writeGeneral(char* out, double value, int digits) {
  if (writeSpecial(out, value)) return out;
  if (value == 0) return write(out, "0");
  Digits all;
  expand(std::fabs(value), all);
  roundTo(all, digits);
  dropZerosAtTheEnd(all);
  const int exponent = all.exponent - 1;
  if (exponent < -4 || exponent >= digits) return writeScientific(out, all, exponent);
  return writeWithPoint(out, all, std::max(all.count - all.exponent, 0));
}

char* writeFixedPoint(char* out, double value, int digits) {
  if (writeSpecial(out, value)) return out;
  Digits all;
  if (value != 0) {
    expand(std::fabs(value), all);
    roundTo(all, all.exponent + digits);
    if (all.count == 0) all.exponent = 0;
  }
  return writeWithPoint(out, all, digits);
}

}  // namespace mlnn
