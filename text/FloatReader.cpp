#include "text/FloatReader.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <exception>
#include <iterator>
#include <limits>
#include <locale>
#include <new>
#include <streambuf>

#include "os/Builtins.h"
#include "text/DecimalConversion.h"

namespace mlnn {
namespace {

// The characters that a stream buffer holds ready. Their pointers are protected members, to
// which a derived class may form member pointers.
class GetArea : public std::streambuf {
 public:
  static const char* begin(const std::streambuf& buffer) { return (buffer.*&GetArea::gptr)(); }

  // No more than can be taken at once.
  static const char* end(const std::streambuf& buffer) {
    constexpr std::ptrdiff_t kMost = std::numeric_limits<int>::max();
    return begin(buffer) + std::min(kMost, (buffer.*&GetArea::egptr)() - begin(buffer));
  }

  // Takes `count` characters from begin() on, up to end() at most.
  static void consume(std::streambuf& buffer, std::ptrdiff_t count) {
    (buffer.*&GetArea::gbump)(static_cast<int>(count));
  }
};

// White space of the classic locale.
bool isSpace(char c) { return c == ' ' || (c >= '\t' && c <= '\r'); }

bool isDigit(char c) { return c >= '0' && c <= '9'; }

// A decimal number as mantissa * 10^exponent.
struct Decimal {
  uint64_t mantissa = 0;
  int digits = 0;  // read into the mantissa, leading zeros included
  int exponent = 0;
  bool isNegative = false;
};

constexpr int kMaxDigits = 18;         // what a mantissa holds without overflow
constexpr int kMaxExponentDigits = 4;  // more of them are left to others

const char* scanDigits(const char* p, const char* end, Decimal& number) {
  for (; p != end && isDigit(*p) && number.digits <= kMaxDigits; ++p, ++number.digits) {
    number.mantissa = 10 * number.mantissa + static_cast<uint64_t>(*p - '0');
  }
  return p;
}

// Returns the position behind [e[+-]digits], or nullptr when there is an e without a number.
const char* scanExponent(const char* p, const char* end, Decimal& number) {
  if (p == end || (*p != 'e' && *p != 'E')) return p;
  ++p;
  const bool isNegative = p != end && *p == '-';
  if (p != end && (*p == '-' || *p == '+')) ++p;
  const char* const digits = p;
  int exponent = 0;
  for (; p != end && isDigit(*p) && p - digits < kMaxExponentDigits; ++p) {
    exponent = 10 * exponent + (*p - '0');
  }
  if (p == digits) return nullptr;
  number.exponent += isNegative ? -exponent : exponent;
  return p;
}

// Returns the position behind the number, which is before `end`, or nullptr.
const char* scan(const char* p, const char* end, Decimal& number) {
  number.isNegative = p != end && *p == '-';
  if (number.isNegative) ++p;
  p = scanDigits(p, end, number);
  if (p != end && *p == '.') {
    const int before = number.digits;
    p = scanDigits(p + 1, end, number);
    number.exponent = before - number.digits;
  }
  if (number.digits == 0 || number.digits > kMaxDigits) return nullptr;
  p = scanExponent(p, end, number);
  return p == nullptr || p == end ? nullptr : p;
}

// --- Numbers of the usual lengths, eight characters at a time ---

// Behind a number's start so many characters must be readable.
constexpr std::ptrdiff_t kWindow = 32;

// Eight characters as they stand in memory, the first one lowest, each digit as its value.
struct Chunk {
  explicit Chunk(const char* p) {
    std::memcpy(&bytes, p, sizeof bytes);
    bytes ^= 0x3030303030303030;
  }

  // Returns how many characters at the front are digits. What a character that is none carries
  // over only falsifies those behind it.
  unsigned digits() const {
    const uint64_t others = ((bytes + 0x7676767676767676) | bytes) & uint64_t{0x8080808080808080};
    return others == 0 ? 8 : static_cast<unsigned>(zerosBelow(others)) / 8;
  }

  // Returns the number that the first `count` characters make.
  // REQUIRES: they are digits; 0 < count <= 8.
  uint64_t number(unsigned count) const {
    uint64_t d = bytes << (64 - 8 * count);  // as many zeros come before as are missing
    d = d * 10 + (d >> 8);
    constexpr uint64_t kPairs = 0x000000FF000000FF;
    return ((d & kPairs) * 0x000F424000000064 + ((d >> 16) & kPairs) * 0x0000271000000001) >> 32;
  }

  uint64_t bytes;
};

constexpr uint64_t kWholePowersOfTen[] = {1,      10,      100,      1000,     10000,
                                          100000, 1000000, 10000000, 100000000};

// Takes the digits behind a point. Returns the position behind them, or nullptr for more than
// are usual.
const char* takeFraction(const char* p, Decimal& number) {
  const Chunk first(p);
  const unsigned count = first.digits();
  if (count == 0) return p;
  number.mantissa = number.mantissa * kWholePowersOfTen[count] + first.number(count);
  number.exponent = -static_cast<int>(count);
  if (count < 8) return p + count;
  const Chunk second(p + count);
  const unsigned more = second.digits();
  if (more == 0) return p + count;
  if (number.digits + 8 + static_cast<int>(more) > kMaxDigits) return nullptr;
  if (more == 8 && isDigit(p[16])) return nullptr;
  number.mantissa = number.mantissa * kWholePowersOfTen[more] + second.number(more);
  number.exponent -= static_cast<int>(more);
  return p + count + more;
}

// The same as scan() for [-]digits[.digits][exponent] with up to seven digits before the point
// and not too many behind; nullptr for other forms, which are left to scan().
// REQUIRES: kWindow characters from p on are readable.
const char* scanUsual(const char* p, const char* end, Decimal& number) {
  number.isNegative = *p == '-';
  p += static_cast<std::ptrdiff_t>(number.isNegative);
  if (isDigit(p[0]) && p[1] == '.') {  // the usual case; what follows need not wait for a count
    number.mantissa = static_cast<uint64_t>(p[0] - '0');
    number.digits = 1;
    p += 1;
  } else {
    const Chunk whole(p);
    const unsigned count = whole.digits();
    if (count == 0 || count == 8) return nullptr;
    number.mantissa = whole.number(count);
    number.digits = static_cast<int>(count);
    p += count;
  }
  if (*p == '.') p = takeFraction(p + 1, number);
  return p == nullptr ? nullptr : scanExponent(p, end, number);
}

// --- Conversion ---

// Powers of ten that a double holds exactly.
constexpr double kPowersOfTen[] = {1e0,  1e1,  1e2,  1e3,  1e4,  1e5,  1e6,  1e7,
                                   1e8,  1e9,  1e10, 1e11, 1e12, 1e13, 1e14, 1e15,
                                   1e16, 1e17, 1e18, 1e19, 1e20, 1e21, 1e22};
constexpr int kMaxPower = 22;
constexpr uint64_t kMaxExactMantissa = uint64_t{1} << 53;

// Converts a number whose mantissa and power of ten are exact as doubles: their product or
// quotient is then the double nearest to it (W. Clinger, How to read floating point numbers
// accurately, 1990), far from a float's limits. Rounding that to a float gives the float
// nearest to the number, unless the double lies halfway between two floats: the number itself
// may then lie on either side. Returns false in that case and for other numbers.
bool convertExactly(const Decimal& number, float& value) {
  if (number.mantissa > kMaxExactMantissa) return false;
  if (number.exponent < -kMaxPower || number.exponent > kMaxPower) return false;
  const auto mantissa = static_cast<double>(number.mantissa);
  double magnitude = number.exponent < 0 ? mantissa / kPowersOfTen[-number.exponent]
                                         : mantissa * kPowersOfTen[number.exponent];
  constexpr uint64_t kBelowFloat = (uint64_t{1} << 29) - 1;  // bits that a float lacks
  constexpr uint64_t kHalf = uint64_t{1} << 28;
  uint64_t bits;
  std::memcpy(&bits, &magnitude, sizeof bits);
  if ((bits & kBelowFloat) == kHalf) return false;
  bits |= static_cast<uint64_t>(number.isNegative) << 63;  // no branch: signs are hard to predict
  std::memcpy(&magnitude, &bits, sizeof bits);
  value = static_cast<float>(magnitude);
  return true;
}

// Reads a number as stream extraction does, which takes memory that runs out for a stream that has
// gone bad; here std::bad_alloc passes through.
void extract(std::istream& in, float& value) {
  using Characters = std::istreambuf_iterator<char>;
  const std::istream::sentry ready(in);
  if (!ready) return;
  std::ios::iostate state = std::ios::goodbit;
  try {
    const std::locale locale = in.getloc();
    std::use_facet<std::num_get<char>>(locale).get(Characters(in), Characters(), in, state, value);
  } catch (const std::bad_alloc&) {
    throw;
  } catch (const std::exception&) {  // what a stream's buffer throws
    state |= std::ios::badbit;
  }
  in.setstate(state);
}

}  // namespace

const char* parsePlainFloat(const char* text, const char* end, float& value) {
  Decimal number;
  const char* behind = end - text >= kWindow ? scanUsual(text, end, number) : nullptr;
  if (behind == nullptr || behind == end) {
    number = Decimal();
    behind = scan(text, end, number);
  }
  if (behind == nullptr) return nullptr;
  if (convertExactly(number, value)) return behind;
  return readDecimal(text, behind, value) ? behind : nullptr;
}

FloatReader::FloatReader(std::istream& in)
    : in_(in), isPlain_(in.getloc() == std::locale::classic() && (in.flags() & std::ios::skipws)) {}

std::size_t FloatReader::read(float* values, std::size_t count) {
  std::size_t done = 0;
  while (done < count) {
    if (isPlain_ && in_.good()) done += readBuffered(values + done, count - done);
    if (done == count) break;
    extract(in_, values[done++]);
    if (!in_) break;
  }
  return done;
}

// Reads numbers that the stream has in its buffer, together with the character behind each.
// Returns how many.
std::size_t FloatReader::readBuffered(float* values, std::size_t count) {
  std::streambuf& buffer = *in_.rdbuf();
  const char* const begin = GetArea::begin(buffer);
  const char* const end = GetArea::end(buffer);
  const char* taken = begin;
  std::size_t done = 0;
  while (done < count) {
    const char* text = taken;
    while (text != end && isSpace(*text)) ++text;
    float value = 0;
    const char* const behind = parsePlainFloat(text, end, value);
    if (behind == nullptr || !isSpace(*behind)) break;
    values[done++] = value;
    taken = behind;
  }
  GetArea::consume(buffer, taken - begin);
  return done;
}

}  // namespace mlnn
