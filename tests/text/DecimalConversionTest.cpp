#include <gtest/gtest.h>

#include <cstdio>
#include <limits>
#include <string>

#include "text/DecimalConversion.h"

namespace {

bool reads(const std::string& text, float& value) {
  return mlnn::readDecimal(text.data(), text.data() + text.size(), value);
}

std::string printed(const char* format, int digits, double value) {
  char text[1000];
  std::snprintf(text, sizeof text, format, digits, value);
  return text;
}

TEST(DecimalConversion, readsAllOfAText) {
  float value = 7;
  for (const auto& [text, expected] : std::initializer_list<std::pair<const char*, float>>{
           {"0", 0.0f},
           {"-1.5", -1.5f},
           {"1e3", 1000.0f},
           {"1e-3", 0.001f},
           {"16777217", 16777216.0f},
           {"3.4028235e38", std::numeric_limits<float>::max()}}) {
    EXPECT_TRUE(reads(text, value)) << text;
    EXPECT_EQ(value, expected) << text;
  }
  for (const char* text : {"", "x", "1x", " 1", "1e", "+1", "3.5e38", "1e-60"}) {
    value = 7;
    EXPECT_FALSE(reads(text, value)) << text;
    EXPECT_EQ(value, 7) << text;
  }
}

TEST(DecimalConversion, writesAsPrintfDoes) {
  for (const double value : {0.0, -0.0, 1.0, -1.0 / 3, 1e-5, 123456.0, 1234567.0, 1e300, 5e-324}) {
    for (const int digits : {1, 6, 9, 17, 80}) {
      char text[mlnn::kLongestDecimal];
      EXPECT_EQ(std::string(text, mlnn::writeGeneral(text, value, digits)),
                printed("%.*g", digits, value));
      EXPECT_EQ(std::string(text, mlnn::writeFixedPoint(text, value, digits - 1)),
                printed("%.*f", digits - 1, value));
    }
  }
}

}  // namespace
