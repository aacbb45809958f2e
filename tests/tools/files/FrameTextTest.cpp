#include <gtest/gtest.h>

#include "tests/support/TestModels.h"
#include "tools/Failure.h"
#include "tools/files/FrameText.h"

namespace {

using mlnn::FrameTextParser;
using mlnn::test::sameBits;

template <typename Action>
std::string refusalOf(Action action) {
  try {
    action();
  } catch (const mlnn::Failure& failure) {
    return failure.what();
  }
  return "";
}

TEST(FrameText, countsFramesUntilTheyAreTaken) {
  FrameTextParser text("F");
  EXPECT_EQ(text.width(), 0u);
  text.addLine("# three values");
  EXPECT_EQ(text.count(), 0u);
  text.addLines("1 2 3\n\n4,5,6\r\n");
  EXPECT_EQ(text.width(), 3u);
  EXPECT_EQ(text.count(), 2u);
  Eigen::MatrixXf expected(3, 2);
  expected << 1, 4, 2, 5, 3, 6;
  EXPECT_TRUE(sameBits(text.take(), expected));
  EXPECT_EQ(text.count(), 0u);
  EXPECT_EQ(text.width(), 3u);
  text.addLine("7 8 9");
  EXPECT_TRUE(sameBits(text.take(), Eigen::Vector3f(7, 8, 9)));
  EXPECT_EQ(text.take().cols(), 0);
}

TEST(FrameText, givesTheFramesBeforeALineThatDoesNotFit) {
  for (const std::string bad : {"3 x", "3", "3 4 5"}) {
    FrameTextParser text("F");
    text.addLine("1 2");
    EXPECT_NE(refusalOf([&] { text.addLine(bad); }), "") << bad;
    EXPECT_EQ(text.count(), 1u);
    EXPECT_TRUE(sameBits(text.take(), Eigen::Vector2f(1, 2))) << bad;
  }
}

TEST(FrameText, countsLinesBeyondWhatWasTaken) {
  FrameTextParser text("F");
  text.addLines("1 2\n\n3 4\n");
  text.take();
  EXPECT_EQ(refusalOf([&] { text.addLine("5 six"); }),
            "F, line 4, column 3: expected a number, found 'six'");
}

TEST(FrameText, asksForOneFrame) {
  FrameTextParser text("F");
  text.addLines("# nothing\n\n");
  EXPECT_EQ(refusalOf([&] { text.finish(); }), "F: holds no frames");
  text.addLine("1");
  text.take();
  EXPECT_EQ(refusalOf([&] { text.finish(); }), "");
}

}  // namespace
