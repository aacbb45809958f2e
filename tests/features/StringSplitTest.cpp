#include <gtest/gtest.h>

#include "features/string_split.h"

namespace {

using Pieces = std::vector<std::string>;

// The pieces, put into a list that held something else.
Pieces split(const std::string& text, const char* delimiters) {
  Pieces pieces = {"left", "over", "from", "before"};
  string_split(pieces, text, delimiters);
  return pieces;
}

TEST(StringSplit, cutsAtEveryDelimiterInOrder) {
  EXPECT_EQ(split("a b\tc", " \t"), (Pieces{"a", "b", "c"}));
  EXPECT_EQ(split("1,2,3", ","), (Pieces{"1", "2", "3"}));
  EXPECT_EQ(split("c,b,a,b", ","), (Pieces{"c", "b", "a", "b"}));
}

TEST(StringSplit, dropsEmptyPieces) {
  EXPECT_EQ(split(" \t a \t\t b  ", " \t"), (Pieces{"a", "b"}));
  EXPECT_EQ(split(",,1,,2,,", ","), (Pieces{"1", "2"}));
}

TEST(StringSplit, cutsOnlyAtTheGivenCharacters) {
  EXPECT_EQ(split("a b,c", ","), (Pieces{"a b", "c"}));
  EXPECT_EQ(split("a\nb\rc", " \t"), (Pieces{"a\nb\rc"}));
}

TEST(StringSplit, nothingToSplitGivesNoPieces) {
  EXPECT_EQ(split("", " "), Pieces{});
  EXPECT_EQ(split(" \t ", " \t"), Pieces{});
}

TEST(StringSplit, withoutADelimiterInItTheTextIsOnePiece) {
  EXPECT_EQ(split("abc", ","), Pieces{"abc"});
  EXPECT_EQ(split("a b", ""), Pieces{"a b"});
}

TEST(StringSplit, keepsBytesOfAnyValue) {
  const std::string text("a\0\xff,b", 5);
  EXPECT_EQ(split(text, ","), (Pieces{std::string("a\0\xff", 3), "b"}));
}

TEST(StringSplit, textMayBeAPieceOfTheSameList) {
  Pieces pieces = {"x y", "1,2"};
  string_split(pieces, pieces[1], ",");
  EXPECT_EQ(pieces, (Pieces{"1", "2"}));
}

}  // namespace
