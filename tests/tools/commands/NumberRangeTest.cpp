#include <gtest/gtest.h>

#include "tools/commands/NumberRange.h"

namespace {

std::string check(const mlnn::ValueCheck& validator, const std::string& text) {
  return validator(text);
}

TEST(NumberRange, acceptsNumbersInTheRange) {
  for (const char* text : {"0", "-0", "0.5", "5e-1", "1", "1.0"}) {
    EXPECT_EQ(check(mlnn::numberRange(0, 1), text), "") << text;
  }
  EXPECT_EQ(check(mlnn::numberRange(0), "1e300"), "");
}

TEST(NumberRange, refusesAnythingElse) {
  for (const char* text :
       {"-0.1", "1.1", "nan", "-nan", "inf", "", "x", "1x", " 1", "0,5", "1e999"}) {
    EXPECT_EQ(check(mlnn::numberRange(0, 1), text),
              "expected a number from 0 to 1, found '" + std::string(text) + "'");
  }
  EXPECT_EQ(check(mlnn::numberRange(0), "-1"), "expected a number of at least 0, found '-1'");
  EXPECT_EQ(check(mlnn::numberRange(0), "nan"), "expected a number of at least 0, found 'nan'");
  EXPECT_EQ(check(mlnn::numberRange(0), "\x1b"), "expected a number of at least 0, found '\\x1b'");
}

}  // namespace
