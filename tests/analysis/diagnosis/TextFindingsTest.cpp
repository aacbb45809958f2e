#include <gtest/gtest.h>

#include "analysis/diagnosis/TextFindings.h"

namespace {

using mlnn::TextFindings;

TEST(TextFindings, keepWhereTheTextDoesNotFit) {
  const mlnn::Watch none;
  TextFindings findings("one\ntwo 0,5\n", none);
  EXPECT_FALSE(findings.misfit());
  std::string word;
  findings.source.read(word);
  findings.source.read(word);
  EXPECT_FALSE(findings.refuseWord("a field", "three", "a hint"));
  ASSERT_TRUE(findings.misfit());
  EXPECT_EQ(findings.misfit()->offset, 4u);
  EXPECT_EQ(findings.misfit()->line, 2u);
  EXPECT_EQ(findings.misfit()->column, 1u);
  EXPECT_EQ(findings.misfit()->field, "a field");
  EXPECT_EQ(findings.misfit()->expected, "three");
  EXPECT_EQ(findings.misfit()->found, "'two'");
  EXPECT_EQ(findings.misfit()->hint, "a hint");
}

TEST(TextFindings, sayWhyAWordIsNoNumber) {
  const mlnn::Watch none;
  TextFindings findings("0,5 word", none);
  float number = 0;
  findings.source.read(number);
  findings.source.read(number);  // what stands behind the zero
  EXPECT_FALSE(findings.refuseNumber("a value", "a number", "otherwise"));
  EXPECT_EQ(findings.misfit()->found, "',5' in '0,5'");
  EXPECT_EQ(findings.misfit()->hint,
            "numbers have a decimal point, and stand between blanks, tabs or line feeds");
}

TEST(TextFindings, tellWhatStandsAtAPlace) {
  const mlnn::Watch none;
  const TextFindings findings("a word", none);
  EXPECT_EQ(findings.foundAt(2), "'word'");
  EXPECT_EQ(findings.foundAt(4), "'rd' in 'word'");
  EXPECT_EQ(findings.foundAt(6), mlnn::kEndOfFile);
}

TEST(TextFindings, remarkOnLines) {
  const mlnn::Watch none;
  TextFindings findings("one\n  two \nthree\n", none);
  findings.remark(0, "kind", "is odd");
  findings.remarkOnIgnored(4, "  two ");
  findings.remarkOnIgnored(4, " \t");
  ASSERT_EQ(findings.remarks().size(), 2u);
  EXPECT_EQ(findings.remarks()[0].kind, "kind");
  EXPECT_EQ(findings.remarks()[0].text, "line 1 is odd");
  EXPECT_EQ(findings.remarks()[0].line, 1u);
  EXPECT_EQ(findings.remarks()[1].text, "line 2 holds 'two', which is not read");
}

TEST(TextFindings, tellTheirWatchOfBytesNowAndThen) {
  const std::string text = std::string(300000, 'x') + "\nend";
  std::size_t told = 0;
  const mlnn::Watch watch = [&told](std::size_t bytes) { told += bytes; };
  TextFindings findings(text, watch);
  findings.tellPlace();
  EXPECT_EQ(told, 0u);
  findings.source.readLine();
  findings.tellPlace();
  EXPECT_EQ(told, 300001u);
  findings.tellPlace();
  EXPECT_EQ(told, 300001u);
}

}  // namespace
