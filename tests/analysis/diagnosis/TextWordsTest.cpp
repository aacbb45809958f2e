#include <gtest/gtest.h>

#include <string>

#include "analysis/diagnosis/TextWords.h"

namespace {

TEST(TextWords, firstTwoOfALine) {
  const auto [first, second] = mlnn::firstTwoWords(" \tlayer  12 size");
  EXPECT_EQ(first.text, "layer");
  EXPECT_EQ(first.offset, 2u);
  EXPECT_EQ(second.text, "12");
  EXPECT_EQ(second.offset, 9u);
}

TEST(TextWords, thatAreMissingAreEmptyAtTheEnd) {
  const auto [first, second] = mlnn::firstTwoWords("one ");
  EXPECT_EQ(first.text, "one");
  EXPECT_EQ(second.text, "");
  EXPECT_EQ(second.offset, 4u);
  EXPECT_EQ(mlnn::firstTwoWords("").first.offset, 0u);
}

TEST(TextWords, atAndAroundAnOffset) {
  const std::string text = "one two";
  EXPECT_EQ(mlnn::wordAt(text, 1), "ne");
  EXPECT_EQ(mlnn::wordAt(text, 3), "");
  EXPECT_EQ(mlnn::wordAt(text, 7), "");
  EXPECT_EQ(mlnn::wordAround(text, 1), "one");
  EXPECT_EQ(mlnn::wordAround(text, 6), "two");
  EXPECT_TRUE(mlnn::isInsideWord(text, 1));
  for (const std::size_t offset : {0u, 4u, 7u}) EXPECT_FALSE(mlnn::isInsideWord(text, offset));
}

TEST(TextWords, longTextsAreCutInMessages) {
  EXPECT_EQ(mlnn::excerpt(std::string(60, 'a')), "'" + std::string(60, 'a') + "'");
  EXPECT_EQ(mlnn::excerpt(std::string(61, 'a')), "'" + std::string(60, 'a') + "' and more");
}

TEST(TextWords, sayWhyTheyAreNoNumbers) {
  const std::string notFinite = "the text format cannot hold values that are not finite";
  for (const char* word : {"inf", "-INF", "+Infinity", "nan", "NaN(7)", "-nan"}) {
    EXPECT_EQ(mlnn::whyNoNumber(word), notFinite) << word;
  }
  for (const char* word : {"1e39", "-3.5e38"}) {
    EXPECT_EQ(mlnn::whyNoNumber(word), "the number is too large for a 32-bit float") << word;
  }
  for (const char* word : {"", "-", "abc", "1", "3.4e38", "infinite", "1e39x"}) {
    EXPECT_EQ(mlnn::whyNoNumber(word), "") << word;
  }
}

TEST(TextWords, knowLinesOfOtherSystems) {
  EXPECT_EQ(mlnn::carriageReturnHint("a\r"),
            "the line ends in a carriage return; lines end in a line feed alone");
  EXPECT_EQ(mlnn::carriageReturnHint("a"), "");
  EXPECT_EQ(mlnn::carriageReturnHint(""), "");
}

}  // namespace
