#include <gtest/gtest.h>

#include <string>

#include "analysis/diagnosis/RaggedRow.h"

namespace {

using mlnn::RaggedRow;

TEST(RaggedRow, isNoneWhereValuesFillTheirLines) {
  const std::string text = "1 2\n3 4 \r\n5 6";
  RaggedRow rows(text);
  rows.note(0, 3, 1, 2);
  rows.note(4, 7, 1, 2);
  rows.note(10, 13, 1, 2);
  EXPECT_EQ(rows.hint(), "");
}

TEST(RaggedRow, tellsTheFirstLineWithTooFewOrTooMany) {
  const std::string text = "1 2\n3\n4 5\n6 7 8\n";
  RaggedRow few(text);
  few.note(0, 3, 2, 2);
  few.note(4, 7, 2, 2);   // 3 and 4, over the end of the line
  few.note(8, 11, 2, 2);  // as every row behind it
  EXPECT_EQ(few.hint(), "line 2 holds 1 value, and a row of layer 2 has 2");
  RaggedRow many(text);
  many.note(10, 13, 7, 2);  // 6 and 7, with 8 behind
  EXPECT_EQ(many.hint(), "line 4 holds 3 values, and a row of layer 7 has 2");
}

TEST(RaggedRow, forgetsThoseOfAnEarlierLayer) {
  const std::string text = "1\n2\n";
  RaggedRow rows(text);
  rows.note(0, 3, 1, 2);
  EXPECT_EQ(rows.hint(), "line 1 holds 1 value, and a row of layer 1 has 2");
  rows.forget();
  EXPECT_EQ(rows.hint(), "");
}

}  // namespace
