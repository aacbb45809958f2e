#include <gtest/gtest.h>

#include "tools/Failure.h"
#include "tools/commands/Widths.h"

namespace {

std::string refusalOf(const std::string& text) {
  try {
    mlnn::parseWidths(text, 1, 16, "2..8");
  } catch (const mlnn::UsageError& error) {
    return error.what();
  }
  return "";
}

TEST(Widths, areOneNumberOrTwo) {
  const mlnn::Widths one = mlnn::parseWidths("8", 1, 16, "2..8");
  EXPECT_EQ(one.first, 8);
  EXPECT_EQ(one.last, 8);
  const mlnn::Widths two = mlnn::parseWidths("1..16", 1, 16, "2..8");
  EXPECT_EQ(two.first, 1);
  EXPECT_EQ(two.last, 16);
}

TEST(Widths, refusesAnythingElse) {
  for (const char* text : {"", "x", "8x", " 8", "8.", "8..", "..8", "8...9", "8..9x", "9..8",
                           "0..8", "1..17", "17", "-1", "8,9", "99999999999", "2..99999999999"}) {
    EXPECT_EQ(refusalOf(text), "--sweep: expected a range within 1..16, as in 2..8, but found '" +
                                   std::string(text) + "'");
  }
}

}  // namespace
