// The conversions by hand against those of the standard library that this is tested with.
#include <gtest/gtest.h>

#include <charconv>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <random>
#include <string>

#include "text/DecimalConversion.h"

namespace {

using std::chars_format;

std::string expectedText(double value, chars_format format, int digits) {
  char text[1200];
  return std::string(text, std::to_chars(text, text + sizeof text, value, format, digits).ptr);
}

std::string general(double value, int digits) {
  char text[1200];
  return std::string(text, mlnn::writeGeneral(text, value, digits));
}

std::string fixedPoint(double value, int digits) {
  char text[1200];
  return std::string(text, mlnn::writeFixedPoint(text, value, digits));
}

uint32_t bitsOf(float value) {
  uint32_t bits;
  std::memcpy(&bits, &value, sizeof bits);
  return bits;
}

// Whether the text is read as the standard library reads it, or refused where that refuses it.
void expectSame(const std::string& text) {
  const char* const end = text.data() + text.size();
  float expected = 12;
  const std::from_chars_result result = std::from_chars(text.data(), end, expected);
  const bool isExpected = result.ec == std::errc() && result.ptr == end;
  float found = 12;
  EXPECT_EQ(mlnn::readDecimal(text.data(), end, found), isExpected) << text;
  EXPECT_EQ(bitsOf(found), bitsOf(isExpected ? expected : 12)) << text;
}

float randomFloat(std::mt19937& random) {
  const auto bits = static_cast<uint32_t>(random());
  float value;
  std::memcpy(&value, &bits, sizeof value);
  return std::isfinite(value) ? value : 1;
}

double randomDouble(std::mt19937& random) {
  const uint64_t bits = (uint64_t{random()} << 32) | random();
  double value;
  std::memcpy(&value, &bits, sizeof value);
  return value;
}

const double kValues[] = {0.0,
                          -0.0,
                          1.0,
                          -1.0,
                          9.5,
                          99.5,
                          0.5,
                          1.5,
                          2.5,
                          0.05,
                          0.15,
                          0.25,
                          0.35,
                          0.125,
                          0.375,
                          999999.5,
                          1e22,
                          1e23,
                          123456.5,
                          1e-5,
                          1e-4,
                          0.0001235,
                          9.9995e-5,
                          0.99995,
                          5e-324,
                          1.7976931348623157e308,
                          2.2250738585072014e-308,
                          INFINITY,
                          -INFINITY,
                          NAN};

TEST(DecimalConversionByHand, writesDoublesAsTheStandardLibraryDoes) {
  std::mt19937 random(1);
  for (int i = 0; i < 4000; ++i) {
    const double value = i < 30       ? kValues[i]
                         : i % 2 == 0 ? double{randomFloat(random)}
                                      : randomDouble(random);
    for (const int digits : {1, 2, 3, 4, 6, 9, 17, 80}) {
      EXPECT_EQ(general(value, digits), expectedText(value, chars_format::general, digits));
    }
    for (const int digits : {0, 1, 2, 3, 9}) {
      EXPECT_EQ(fixedPoint(value, digits), expectedText(value, chars_format::fixed, digits));
    }
  }
}

TEST(DecimalConversionByHand, readsFloatsAsTheStandardLibraryDoes) {
  std::mt19937 random(2);
  for (int i = 0; i < 20000; ++i) {
    expectSame(expectedText(double{randomFloat(random)}, chars_format::general, 1 + i % 20));
  }
}

// Where two floats are equally near, and a digit beside it.
TEST(DecimalConversionByHand, roundsBordersBetweenFloats) {
  std::mt19937 random(3);
  for (int i = 0; i < 2000; ++i) {
    const float value = std::fabs(randomFloat(random));
    const double next = double{std::nextafter(value, INFINITY)};
    if (!std::isfinite(next)) continue;
    std::string text = expectedText((double{value} + next) / 2, chars_format::scientific, 120);
    expectSame(text);
    const std::size_t last = text.find('e') - 1;
    text[last] = '1';
    expectSame(text);
    expectSame(expectedText((double{value} + next) / 2, chars_format::general, 17));
  }
}

TEST(DecimalConversionByHand, readsAndRefusesByTheSameGrammar) {
  for (const char* text : {"0",
                           "-0",
                           "0.0",
                           "00",
                           "1",
                           "-1",
                           "1.",
                           ".5",
                           "-.5",
                           "1e5",
                           "1E5",
                           "1e+5",
                           "1e-5",
                           "0e9999",
                           "0.00000000000000000000000000000000000000000000000000001e53",
                           "1e",
                           "1e+",
                           "1.5e",
                           "",
                           "-",
                           ".",
                           "+1",
                           " 1",
                           "1 ",
                           "1..2",
                           "1e5.5",
                           "1e38",
                           "3.4028235e38",
                           "3.4028235677973366e38",
                           "3.4028236e38",
                           "3.5e38",
                           "1e39",
                           "1e9999",
                           "-1e9999",
                           "1e-45",
                           "7e-46",
                           "7.1e-46",
                           "1e-46",
                           "1e-9999",
                           "1.401298464324817e-45",
                           "1.17549435e-38",
                           "16777217",
                           "16777217.000000000000001",
                           "16777219",
                           "100000000000000000000000000000000000000000",
                           "0.1",
                           "123456789012345678"}) {
    expectSame(text);
  }
}

TEST(DecimalConversionByHand, noDigitIsTooFarBehind) {
  const std::string half = "16777217." + std::string(2000, '0');
  expectSame(half);
  expectSame(half + "1");
  expectSame(std::string(2000, '0') + "1.5");
  expectSame("0." + std::string(2000, '0') + "15e2000");
}

}  // namespace
