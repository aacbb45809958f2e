#include <gtest/gtest.h>

#include <sstream>

#include "text/Numbers.h"
#include "tools/reports/Table.h"

namespace {

using mlnn::Table;

TEST(TableTest, linesUpColumnsAndLeavesNoBlanksAtTheEnd) {
  Table table({Table::Align::kRight, Table::Align::kLeft}, {"n", "name"});
  table.addRow({"1", "a"});
  table.addRow({"100", "\xc3\xa4\xc3\xb6"});  // two characters of two bytes each
  std::ostringstream out;
  table.print(out);
  EXPECT_EQ(out.str(),
            "  n  name\n"
            "  1  a\n"
            "100  \xc3\xa4\xc3\xb6\n");
}

TEST(TableTest, letsCellsStandOutOfColumnsThatWereNotMadeForThem) {
  mlnn::TableColumns columns({Table::Align::kRight, Table::Align::kLeft, Table::Align::kRight});
  columns.fit({"ab", "cd", "e"});
  std::ostringstream out;
  columns.print({"1", "2", "3"}, out);
  columns.print({"100", "2", "30"}, out);
  EXPECT_EQ(out.str(),
            " 1  2   3\n"
            "100  2   30\n");
}

TEST(NumbersTest, writesNumbersAsPrintfDoes) {
  EXPECT_EQ(mlnn::generalNumber(0.1, 9), "0.1");
  EXPECT_EQ(mlnn::generalNumber(double{0.1f}, 9), "0.100000001");
  EXPECT_EQ(mlnn::generalNumber(1e-7, 6), "1e-07");
  EXPECT_EQ(mlnn::fixedNumber(1e300, 0).size(), 301u);
  EXPECT_EQ(mlnn::fixedNumber(-0.5, 3), "-0.500");
  EXPECT_EQ(mlnn::counted(1, "layer"), "1 layer");
  EXPECT_EQ(mlnn::counted(0, "layer"), "0 layers");
}

}  // namespace
