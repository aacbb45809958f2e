#include <gtest/gtest.h>

#include <string>

#include "text/Escape.h"

namespace {

using mlnn::escaped;
using namespace std::string_literals;

struct Case {
  std::string text;
  std::string shown;
};

class EscapeTest : public ::testing::TestWithParam<Case> {};

TEST_P(EscapeTest, showsEveryKindOfCharacter) {
  EXPECT_EQ(escaped(GetParam().text), GetParam().shown);
}

INSTANTIATE_TEST_SUITE_P(
    All, EscapeTest,
    ::testing::Values(
        Case{"", ""}, Case{"plain text, 0-9 ~", "plain text, 0-9 ~"},
        Case{"\x1b]0;owned\a", "\\x1b]0;owned\\x07"}, Case{"a\0b"s, "a\\x00b"},
        Case{"tab\tline\nreturn\r", "tab\\tline\\nreturn\\r"}, Case{"back\\slash", "back\\\\slash"},
        Case{"del\x7f", "del\\x7f"},
        // C1 controls, as UTF-8 and as single bytes: 9b begins terminal commands as ESC [ does.
        Case{"\xc2\x9b", "\\xc2\\x9b"}, Case{"\x9b", "\\x9b"},
        // Valid UTF-8 of two, three and four bytes stays.
        Case{"\xc3\xa4 \xe2\x82\xac \xf0\x9f\x98\x80", "\xc3\xa4 \xe2\x82\xac \xf0\x9f\x98\x80"},
        // Bytes that are not UTF-8: cut short, stray, overlong, surrogate, beyond U+10FFFF.
        Case{"\xe2\x82", "\\xe2\\x82"}, Case{"\x80x", "\\x80x"}, Case{"\xc0\xaf", "\\xc0\\xaf"},
        Case{"\xe0\x80\xaf", "\\xe0\\x80\\xaf"}, Case{"\xed\xa0\x80", "\\xed\\xa0\\x80"},
        Case{"\xf4\x90\x80\x80", "\\xf4\\x90\\x80\\x80"}, Case{"\xff", "\\xff"},
        Case{"\xe2\x82z", "\\xe2\\x82z"},
        // Characters that hide or reorder others.
        Case{"\xe2\x80\xae", "\\u{202e}"}, Case{"\xe2\x80\x8b", "\\u{200b}"},
        Case{"\xef\xbb\xbf", "\\u{feff}"}, Case{"\xf3\xa0\x80\x81", "\\u{e0001}"}));

TEST(EscapeTest, quotesNames) { EXPECT_EQ(mlnn::inQuotes("a\nb"), "'a\\nb'"); }

TEST(EscapeTest, shortensLongTexts) {
  EXPECT_EQ(mlnn::shortened("a\nb"), "a\\nb");
  const std::string whole(160, 'x');
  EXPECT_EQ(mlnn::shortened(whole), whole);
  EXPECT_EQ(mlnn::shortened(whole + "y"), whole + "... (161 bytes)");
  // Not inside a character of several bytes.
  EXPECT_EQ(mlnn::shortened(std::string(159, 'x') + "\xc3\xa4"),
            std::string(159, 'x') + "... (161 bytes)");
  EXPECT_EQ(mlnn::shortened(std::string(200, '\x80')), "... (200 bytes)");
}

}  // namespace
