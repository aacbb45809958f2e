#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tools/Failure.h"
#include "tools/files/Csv.h"

namespace {

using Fields = std::vector<std::string>;

// The fields of all rows, with the line of each row before them.
std::vector<Fields> parsed(const std::string& text) {
  std::vector<Fields> rows;
  for (const mlnn::CsvRow& row : mlnn::parseCsv(text, "table")) {
    rows.push_back({std::to_string(row.line)});
    rows.back().insert(rows.back().end(), row.fields.begin(), row.fields.end());
  }
  return rows;
}

std::string failureOf(const std::string& text) {
  try {
    mlnn::parseCsv(text, "table");
  } catch (const mlnn::Failure& failure) {
    return failure.what();
  }
  return "";
}

TEST(CsvTest, rowsAndFields) {
  EXPECT_EQ(parsed(""), std::vector<Fields>{});
  EXPECT_EQ(parsed("a,b\nc,d\n"), (std::vector<Fields>{{"1", "a", "b"}, {"2", "c", "d"}}));
  EXPECT_EQ(parsed("a,b\nc,d"), (std::vector<Fields>{{"1", "a", "b"}, {"2", "c", "d"}}));
  EXPECT_EQ(parsed(",\n a ,"), (std::vector<Fields>{{"1", "", ""}, {"2", " a ", ""}}));
}

TEST(CsvTest, emptyLinesCarriageReturnsAndByteOrderMark) {
  EXPECT_EQ(parsed("\xEF\xBB\xBF\r\n\na,b\r\n\r\nc\r\n"),
            (std::vector<Fields>{{"3", "a", "b"}, {"5", "c"}}));
  EXPECT_EQ(parsed("a\r"), (std::vector<Fields>{{"1", "a"}}));
}

TEST(CsvTest, quotedFields) {
  EXPECT_EQ(parsed("\"a,b\",\"c\"\"d\",\"\"\n"), (std::vector<Fields>{{"1", "a,b", "c\"d", ""}}));
  EXPECT_EQ(parsed("\"a\nb\",c\r\nd"), (std::vector<Fields>{{"1", "a\nb", "c"}, {"3", "d"}}));
  EXPECT_EQ(parsed("a\"b"), (std::vector<Fields>{{"1", "a\"b"}}));
}

TEST(CsvTest, quotesThatDoNotCloseAreRefused) {
  EXPECT_EQ(failureOf("a\n\"b"), "table, line 2: expected a closing quote");
  EXPECT_EQ(failureOf("\"a\"b\n"),
            "table, line 1: expected a comma or the end of the line behind a quoted field");
}

}  // namespace
