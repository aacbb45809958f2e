#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <limits>
#include <random>
#include <string>

#include "text/FloatText.h"

namespace {

std::string formatted(float value, int precision) {
  std::string text(static_cast<std::size_t>(mlnn::floatTextLength(precision)), '?');
  const char* const end = mlnn::formatFloat(text.data(), value, precision);
  text.resize(static_cast<std::size_t>(end - text.data()));
  return text;
}

std::string printed(float value, int precision) {
  if (std::isnan(value)) return std::signbit(value) ? "-nan" : "nan";  // as not every library does
  char text[160];
  std::snprintf(text, sizeof text, "%.*g", precision, double{value});
  return text;
}

float floatOf(uint32_t bits) {
  float value;
  std::memcpy(&value, &bits, sizeof value);
  return value;
}

void expectAsPrinted(float value) {
  for (int precision = 1; precision <= 64; precision += precision < 20 ? 1 : 11) {
    ASSERT_EQ(formatted(value, precision), printed(value, precision)) << "precision " << precision;
  }
}

TEST(FloatText, writesWhatPrintfWrites) {
  EXPECT_EQ(formatted(0.5f, 6), "0.5");
  EXPECT_EQ(formatted(1e-07f, 6), "1e-07");
  EXPECT_EQ(formatted(123456789.0f, 6), "1.23457e+08");
  EXPECT_EQ(formatted(0.1f, 9), "0.100000001");
  EXPECT_EQ(formatted(-0.0f, 6), "-0");
  EXPECT_EQ(formatted(100000.0f, 6), "100000");
  EXPECT_EQ(formatted(1000000.0f, 6), "1e+06");
  EXPECT_EQ(formatted(0.0001f, 6), "0.0001");
  EXPECT_EQ(formatted(0.00001f, 6), "1e-05");
}

TEST(FloatText, roundsTiesToEvenDigits) {
  EXPECT_EQ(formatted(204600.5f, 6), "204600");
  EXPECT_EQ(formatted(204601.5f, 6), "204602");
  EXPECT_EQ(formatted(2.5f, 1), "2");
  EXPECT_EQ(formatted(3.5f, 1), "4");
}

TEST(FloatText, carriesIntoAnotherDigit) {
  EXPECT_EQ(formatted(999999.5f, 6), "1e+06");
  EXPECT_EQ(formatted(9.9999999e-5f, 6), "0.0001");
  EXPECT_EQ(formatted(9.96f, 2), "10");
}

TEST(FloatText, writesWhatIsNotFinite) {
  expectAsPrinted(std::numeric_limits<float>::infinity());
  expectAsPrinted(-std::numeric_limits<float>::infinity());
  expectAsPrinted(floatOf(0x7FC00000));
  expectAsPrinted(floatOf(0xFFC00000));
}

TEST(FloatText, agreesWithPrintfAtEveryPowerOfTen) {
  for (int exponent = -45; exponent <= 38; ++exponent) {
    char text[16];
    std::snprintf(text, sizeof text, "1e%d", exponent);
    const float power = std::stof(exponent < -37 ? "1e-37" : text);
    uint32_t bits;
    std::memcpy(&bits, &power, sizeof bits);
    for (uint32_t near = bits - 20; near != bits + 20; ++near) expectAsPrinted(floatOf(near));
  }
}

TEST(FloatText, agreesWithPrintfAtEveryPowerOfTwo) {
  for (uint32_t exponent = 0; exponent < 255; ++exponent) {
    for (const uint32_t mantissa : {0u, 1u, 0x7FFFFFu, 0x400000u}) {
      expectAsPrinted(floatOf(exponent << 23 | mantissa));
    }
  }
}

TEST(FloatText, agreesWithPrintfOnAnyFloat) {
  std::mt19937 random(1);
  for (int i = 0; i < 50000; ++i) expectAsPrinted(floatOf(static_cast<uint32_t>(random())));
}

TEST(FloatText, agreesWithPrintfOnHalvesAndQuarters) {
  for (int i = 0; i < 50000; ++i) expectAsPrinted(static_cast<float>(i * 37) / 4);
}

}  // namespace
