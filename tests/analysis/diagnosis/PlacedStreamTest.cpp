#include <gtest/gtest.h>

#include "analysis/diagnosis/PlacedStream.h"

namespace {

using mlnn::PlacedStream;

TEST(PlacedStream, knowsWhereWordsBegin) {
  PlacedStream in("  one\t 22\nrest of it\n");
  std::string word;
  EXPECT_TRUE(in.read(word));
  EXPECT_EQ(word, "one");
  EXPECT_EQ(in.start(), 2u);
  EXPECT_EQ(in.position(), 5u);
  int number = 0;
  EXPECT_TRUE(in.read(number));
  EXPECT_EQ(number, 22);
  EXPECT_EQ(in.start(), 7u);
  EXPECT_EQ(in.readLine(), "");
  EXPECT_TRUE(in.nextIs('r'));
  EXPECT_EQ(in.readLine(), "rest of it");
  EXPECT_EQ(in.start(), 10u);
  EXPECT_FALSE(in.metEnd());
  EXPECT_EQ(in.readLine(), "");
  EXPECT_TRUE(in.metEnd());
}

TEST(PlacedStream, readsNumbersAsTheReaderDoes) {
  PlacedStream in("0,5 x");
  float number = -1;
  EXPECT_TRUE(in.read(number));
  EXPECT_EQ(number, 0);
  EXPECT_EQ(in.position(), 1u);
  EXPECT_FALSE(in.read(number));
  EXPECT_EQ(in.start(), 1u);
}

TEST(PlacedStream, hasNothingBehindItsEnd) {
  PlacedStream in(" \n");
  std::string word = "kept";
  EXPECT_FALSE(in.read(word));
  EXPECT_EQ(in.start(), 2u);
  EXPECT_TRUE(in.metEnd());
  EXPECT_FALSE(in.nextIs('\n'));
}

TEST(PlacedStream, takesTheWhiteSpaceOfTheClassicLocale) {
  for (const char c : {' ', '\t', '\n', '\v', '\f', '\r'}) EXPECT_TRUE(mlnn::isSpace(c)) << int(c);
  for (const char c : {'a', '\0', '\b', '\x0E', '\xA0'}) EXPECT_FALSE(mlnn::isSpace(c)) << int(c);
}

}  // namespace
