#include <gtest/gtest.h>

#include <string>

#include "tools/reports/InkedLine.h"

namespace {

using mlnn::Ink;
using mlnn::InkedLine;

std::string lineOf(bool hasColours) {
  InkedLine line(hasColours);
  line.add("a |");
  line.add("#", Ink::kGreen);
  line.add(" ", Ink::kYellow);
  line.add("#", Ink::kGreen);
  line.add("@", Ink::kYellow);
  line.add(".");
  line.add("=", Ink::kCyan);
  line.add("  ");
  return line.text();
}

TEST(InkedLineTest, beginsAColourWhereItChanges) {
  EXPECT_EQ(lineOf(true), "a |\x1b[32m# #\x1b[33m@\x1b[0m.\x1b[36m=\x1b[0m");
}

TEST(InkedLineTest, isTheTextAloneWithoutColours) { EXPECT_EQ(lineOf(false), "a |# #@.="); }

TEST(InkedLineTest, isEmptyWhereNothingButBlanksCame) {
  InkedLine line(true);
  line.add("  ", Ink::kGreen);
  EXPECT_EQ(line.text(), "");
}

TEST(InkedLineTest, coloursTakeNoRoom) {
  EXPECT_EQ(mlnn::shownWidth(lineOf(true)), 9u);
  EXPECT_EQ(mlnn::shownWidth("m\xc3\xa4m"), 3u);
  EXPECT_EQ(mlnn::shownWidth(""), 0u);
}

}  // namespace
