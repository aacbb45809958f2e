#include <gtest/gtest.h>

#include <cstdlib>
#include <limits>
#include <string>

#include "text/Numbers.h"

namespace {

using mlnn::counted;
using mlnn::fixedNumber;
using mlnn::generalNumber;

TEST(Numbers, generalOnesAreAsPrintfsG) {
  EXPECT_EQ(generalNumber(0.5, 9), "0.5");
  EXPECT_EQ(generalNumber(1e-7, 9), "1e-07");
  EXPECT_EQ(generalNumber(123456789, 4), "1.235e+08");
  EXPECT_EQ(generalNumber(-0.0, 9), "-0");
  EXPECT_EQ(generalNumber(std::numeric_limits<double>::quiet_NaN(), 9), "nan");
  EXPECT_EQ(generalNumber(-std::numeric_limits<double>::infinity(), 9), "-inf");
}

TEST(Numbers, fixedOnesAreAsPrintfsF) {
  EXPECT_EQ(fixedNumber(2.0 / 3, 3), "0.667");
  EXPECT_EQ(fixedNumber(12, 0), "12");
  EXPECT_EQ(fixedNumber(-0.04, 1), "-0.0");
}

TEST(Numbers, theLargestHasItsPlace) {
  const std::string text = fixedNumber(-std::numeric_limits<double>::max(), 60);
  EXPECT_EQ(text.size(), 1u + 309 + 1 + 60);
  EXPECT_EQ(text.substr(0, 6), "-17976");
}

TEST(Numbers, nineDigitsGiveAFloatBack) {
  for (const float value : {0.1f, 16777217.0f, 1e-45f, 3.40282347e38f, -1.17549435e-38f}) {
    EXPECT_EQ(
        std::strtof(generalNumber(static_cast<double>(value), mlnn::kExactDigits).c_str(), nullptr),
        value);
  }
}

TEST(Numbers, countsHaveTheirPlural) {
  EXPECT_EQ(counted(0, "layer"), "0 layers");
  EXPECT_EQ(counted(1, "layer"), "1 layer");
  EXPECT_EQ(counted(2, "layer"), "2 layers");
}

}  // namespace
