#include <gtest/gtest.h>

#include <string>

#include "analysis/diagnosis/TextPlace.h"

namespace {

TEST(TextPlace, countsLinesAndColumnsFromOne) {
  const std::string text = "ab\n\nc";
  const std::size_t expected[][2] = {{1, 1}, {1, 2}, {1, 3}, {2, 1}, {3, 1}, {3, 2}};
  for (std::size_t offset = 0; offset <= text.size(); ++offset) {
    mlnn::Misfit misfit;
    misfit.offset = offset;
    mlnn::placeInText(text, misfit);
    EXPECT_EQ(misfit.line, expected[offset][0]) << offset;
    EXPECT_EQ(misfit.column, expected[offset][1]) << offset;
  }
}

TEST(TextPlace, lineCounterGoesOnFromWhereItWas) {
  mlnn::LineCounter lines("ab\n\nc");
  EXPECT_EQ(lines.lineOf(0), 1u);
  EXPECT_EQ(lines.lineOf(2), 1u);
  EXPECT_EQ(lines.lineOf(2), 1u);
  EXPECT_EQ(lines.lineOf(3), 2u);
  EXPECT_EQ(lines.lineOf(4), 3u);
}

}  // namespace
