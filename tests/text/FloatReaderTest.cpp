#include <gtest/gtest.h>
#include <sys/mman.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <locale>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "tests/support/PieceBuffer.h"
#include "text/FloatReader.h"

namespace {

using mlnn::test::PieceBuffer;

// What reading a text left behind.
struct Outcome {
  std::vector<uint32_t> valueBits;
  std::size_t reached;
  std::ios::iostate state;
  std::string rest;

  bool operator==(const Outcome& other) const {
    return valueBits == other.valueBits && reached == other.reached && state == other.state &&
           rest == other.rest;
  }
};

std::ostream& operator<<(std::ostream& out, const Outcome& outcome) {
  out << outcome.reached << " reached, state " << outcome.state << ", rest '" << outcome.rest
      << "', values" << std::hex;
  for (const uint32_t bits : outcome.valueBits) out << " " << bits;
  return out << std::dec;
}

std::size_t readPlainly(std::istream& in, float* values, std::size_t count) {
  std::size_t done = 0;
  while (done < count) {
    in >> values[done++];
    if (!in) break;
  }
  return done;
}

std::size_t readFast(std::istream& in, float* values, std::size_t count) {
  return mlnn::FloatReader(in).read(values, count);
}

using Prepare = void (*)(std::istream&);

Outcome outcomeOf(std::size_t (*read)(std::istream&, float*, std::size_t), const std::string& text,
                  std::size_t pieceLength, Prepare prepare) {
  PieceBuffer buffer(text, pieceLength);
  std::istream in(&buffer);
  prepare(in);
  std::vector<float> values(6, 42.0f);
  Outcome outcome;
  outcome.reached = read(in, values.data(), values.size());
  outcome.state = in.rdstate();
  for (const float value : values) {
    uint32_t bits;
    std::memcpy(&bits, &value, sizeof bits);
    outcome.valueBits.push_back(bits);
  }
  in.clear();
  in.imbue(std::locale::classic());
  std::getline(in, outcome.rest, '\0');
  return outcome;
}

void nothing(std::istream&) {}

void expectSame(const std::string& text, Prepare prepare = nothing) {
  for (const std::size_t pieceLength : {1u, 2u, 3u, 7u, 1000u}) {
    const Outcome expected = outcomeOf(readPlainly, text, pieceLength, prepare);
    const Outcome found = outcomeOf(readFast, text, pieceLength, prepare);
    ASSERT_EQ(expected, found) << "text '" << text << "' in pieces of " << pieceLength;
  }
}

const char* const kTokens[] = {"0",
                               "-0",
                               "1",
                               "-1",
                               "+1",
                               "0.5",
                               ".5",
                               "5.",
                               ".",
                               "-",
                               "+",
                               "--1",
                               "1e5",
                               "1E5",
                               "1e+5",
                               "1e-5",
                               "1e",
                               "1e+",
                               "1e-",
                               "e5",
                               "1e5.5",
                               "1.5.5",
                               "1e38",
                               "3.4028235e38",
                               "3.4028236e38",
                               "3.5e38",
                               "-1e39",
                               "1e50",
                               "1e400",
                               "1e99999",
                               "1e999999999999",
                               "1e-30",
                               "1e-38",
                               "1e-45",
                               "7e-46",
                               "1e-50",
                               "1e-400",
                               "1.17549435e-38",
                               "0e50",
                               "0e-99999",
                               "0x1",
                               "0x1p3",
                               "nan",
                               "inf",
                               "-inf",
                               "infinity",
                               "1f",
                               "1d",
                               "1,5",
                               "1,000",
                               "00012",
                               "0000000000000000000000000000001",
                               "123456789012345678",
                               "1234567890123456789",
                               "12345678901234567890",
                               "0.123456789012345678901",
                               "16777216",
                               "16777217",
                               "16777219",
                               "9007199254740993",
                               "33554433.000000001",
                               "1.00000005960464477539062",
                               "1.000000059604644775390625",
                               "1.0000000596046447753906251",
                               "abc",
                               "1abc",
                               "1-1",
                               "1#",
                               "#",
                               "1e22",
                               "1e23",
                               "123456789e-22",
                               "123456789e-23",
                               "99999999999999999999999999",
                               "0.1",
                               "0.2",
                               "0.3",
                               "1.1754942e-38"};

TEST(FloatReader, readsEveryKindOfTokenAsTheStreamDoes) {
  for (const char* first : kTokens) {
    for (const char* separator : {" ", "\t", "\n", "\r\n", "\v\f", "  \t\n", "", ","}) {
      expectSame(std::string(first) + separator + "2.5 7");
      expectSame(std::string("1.25 ") + first + separator);
      expectSame(std::string(first) + separator);
    }
  }
}

TEST(FloatReader, readsNulBytesAndHighBytesAsTheStreamDoes) {
  for (const char byte : {'\0', '\x80', '\xff', '\x1f', '\x7f', '\xa0'}) {
    expectSame(std::string("1.5 2") + byte + " 3.5 ");
    expectSame(std::string("1.5") + byte);
    expectSame(byte + std::string("1.5 2.5 "));
  }
}

TEST(FloatReader, readsAnythingThatLooksLikeNumbersAsTheStreamDoes) {
  const char alphabet[] = "0123456789012345678900..--+eE \t\nx,";
  std::mt19937 random(1);
  for (int i = 0; i < 50000; ++i) {
    std::string text(random() % 40, ' ');
    for (char& c : text) c = alphabet[random() % (sizeof alphabet - 1)];
    expectSame(text);
  }
}

TEST(FloatReader, readsAllPrecisionsOfAnyFloat) {
  std::mt19937 random(2);
  for (int i = 0; i < 20000; ++i) {
    const auto bits = static_cast<uint32_t>(random());
    float value;
    std::memcpy(&value, &bits, sizeof value);
    char text[80];
    const int precision = static_cast<int>(random() % 20);
    std::snprintf(text, sizeof text, "%.*g %.*e ", precision, double{value}, precision,
                  double{value});
    expectSame(text);
  }
}

// Up to more digits than 64 bits hold, on either side of the point.
TEST(FloatReader, readsAnyNumberOfDigitsAsTheStreamDoes) {
  std::mt19937 random(4);
  const auto digits = [&random](std::size_t count) {
    std::string text;
    while (text.size() < count) text += static_cast<char>('1' + random() % 9);
    return text;
  };
  for (std::size_t whole = 0; whole < 24; ++whole) {
    for (std::size_t fraction = 0; fraction < 24; ++fraction) {
      const std::string number = digits(whole) + "." + digits(fraction);
      expectSame(number + " -" + number + "\t" + number + "e-7 " + number + "e3\n");
    }
  }
}

// Numbers next to the middle between two floats, where one wrong rounding would show.
TEST(FloatReader, roundsOnceNearTheMiddleOfTwoFloats) {
  std::mt19937 random(3);
  for (int i = 0; i < 20000; ++i) {
    const auto bits = static_cast<uint32_t>(0x20000000u + random() % 0x3F000000u);
    float lower;
    std::memcpy(&lower, &bits, sizeof lower);
    float upper;
    const uint32_t nextBits = bits + 1;
    std::memcpy(&upper, &nextBits, sizeof upper);
    const double middle = (double{lower} + double{upper}) / 2;
    char text[80];
    std::snprintf(text, sizeof text, "%.*g ", 9 + static_cast<int>(random() % 9), middle);
    expectSame(text);
  }
}

struct CommaPunctuation : std::numpunct<char> {
  char do_decimal_point() const override { return ','; }
  char do_thousands_sep() const override { return '.'; }
  std::string do_grouping() const override { return "\3"; }
};

TEST(FloatReader, followsTheStreamsLocale) {
  for (const char* text : {"1,5 2,25 ", "1.000,5 2 ", "1.5 2.5 ", "0.5 "}) {
    expectSame(text, [](std::istream& in) {
      in.imbue(std::locale(std::locale::classic(), new CommaPunctuation));
    });
  }
}

TEST(FloatReader, followsTheStreamsFlags) {
  for (const char* text : {"1.5 2.5 ", " 1.5 2.5 ", "1.5"}) {
    expectSame(text, [](std::istream& in) { in >> std::noskipws; });
    expectSame(text, [](std::istream& in) { in >> std::hex; });
  }
}

TEST(FloatReader, leavesTargetsAloneWhenTheStreamHasFailed) {
  expectSame("1.5 2.5 ", [](std::istream& in) { in.setstate(std::ios::failbit); });
  expectSame("1.5 2.5 ", [](std::istream& in) { in.setstate(std::ios::eofbit); });
}

TEST(FloatReader, canTakeTurnsWithOtherReads) {
  std::istringstream in("1.5 2.5 word 3.5\tline\n4.5 ");
  mlnn::FloatReader reader(in);
  float values[2] = {};
  std::string text;
  EXPECT_EQ(reader.read(values, 2), 2u);
  EXPECT_EQ(values[0], 1.5f);
  EXPECT_EQ(values[1], 2.5f);
  in >> text;
  EXPECT_EQ(text, "word");
  EXPECT_EQ(reader.read(values, 1), 1u);
  EXPECT_EQ(values[0], 3.5f);
  std::getline(in, text);
  EXPECT_EQ(text, "\tline");
  EXPECT_EQ(reader.read(values, 1), 1u);
  EXPECT_EQ(values[0], 4.5f);
  EXPECT_TRUE(in.good());
}

// Holds three gigabytes ready, of which only the text at the start takes memory.
class HugeBuffer : public std::streambuf {
 public:
  explicit HugeBuffer(const std::string& text) {
    if (sizeof(void*) < sizeof(int64_t)) return;
    void* const mapped = mmap(nullptr, kLength, PROT_READ | PROT_WRITE,
                              MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (mapped == MAP_FAILED) return;
    char* const begin = static_cast<char*>(mapped);
    text.copy(begin, text.size());
    setg(begin, begin, begin + kLength);
  }
  ~HugeBuffer() override {
    if (eback() != nullptr) munmap(eback(), kLength);
  }
  bool isThere() const { return eback() != nullptr; }
  std::ptrdiff_t taken() const { return gptr() - eback(); }

 private:
  static constexpr std::size_t kLength = std::size_t{3} << 30;
};

TEST(FloatReader, takesMoreCharactersThanAnIntCounts) {
  HugeBuffer buffer("1.5 2.5 3.5 ");
  if (!buffer.isThere()) GTEST_SKIP() << "no addresses for so many characters";
  std::istream in(&buffer);
  float values[3] = {};
  EXPECT_EQ(mlnn::FloatReader(in).read(values, 3), 3u);
  EXPECT_EQ(values[2], 3.5f);
  EXPECT_EQ(buffer.taken(), 11);
  EXPECT_TRUE(in.good());
}

TEST(ParsePlainFloat, stopsBehindTheNumber) {
  const std::string text = "-1.25e1 ";
  float value = 0;
  EXPECT_EQ(mlnn::parsePlainFloat(text.data(), text.data() + text.size(), value), text.data() + 7);
  EXPECT_EQ(value, -12.5f);
}

TEST(ParsePlainFloat, takesAllDigitsOfANumber) {
  const std::string digits = "123456789123456789";
  const std::string rest(40, ' ');  // as many characters as the quick way asks for
  for (std::size_t count = 1; count <= digits.size(); ++count) {
    const std::string text = digits.substr(0, count) + rest;
    float value = 0;
    EXPECT_EQ(mlnn::parsePlainFloat(text.data(), text.data() + text.size(), value),
              text.data() + count);
    EXPECT_EQ(value, std::strtof(text.c_str(), nullptr)) << text;
  }
}

TEST(ParsePlainFloat, takesAllDigitsAroundAPoint) {
  const std::string digits = "987654321987654321";
  for (std::size_t before = 1; before < digits.size(); ++before) {
    for (std::size_t behind = 0; before + behind <= digits.size(); ++behind) {
      for (const std::string sign : {"", "-"}) {
        const std::string number =
            sign + digits.substr(0, before) + "." + digits.substr(before, behind);
        const std::string text = number + std::string(40, ' ');
        float value = 0;
        EXPECT_EQ(mlnn::parsePlainFloat(text.data(), text.data() + text.size(), value),
                  text.data() + number.size())
            << number;
        EXPECT_EQ(value, std::strtof(text.c_str(), nullptr)) << number;
      }
    }
  }
}

TEST(ParsePlainFloat, refusesWhatReachesTheEnd) {
  const std::string text = "1.25";
  float value = 42;
  EXPECT_EQ(mlnn::parsePlainFloat(text.data(), text.data() + text.size(), value), nullptr);
  EXPECT_EQ(value, 42);
}

}  // namespace
