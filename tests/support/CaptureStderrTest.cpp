#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <iostream>

#include "tests/support/CaptureStderr.h"

namespace {

using mlnn::test::CaptureStderr;
using mlnn::test::stderrOf;

TEST(CaptureStderr, takesStreamsPrintfAndRawWritesInOrder) {
  const std::string text = stderrOf([] {
    std::cerr << "stream\n";
    std::fprintf(stderr, "printf %d\n", 1);
    ASSERT_EQ(write(STDERR_FILENO, "raw\n", 4), 4);
  });
  EXPECT_EQ(text, "stream\nprintf 1\nraw\n");
}

TEST(CaptureStderr, startsEmptyEachTime) {
  EXPECT_EQ(stderrOf([] { std::cerr << "first\n"; }), "first\n");
  EXPECT_EQ(stderrOf([] {}), "");
}

TEST(CaptureStderr, keepsMoreThanOneBlockAndBytesOfAnyValue) {
  const std::string longText = std::string(10000, 'x') + std::string("\0\xff\n", 3);
  EXPECT_EQ(stderrOf([&] { std::cerr << longText; }), longText);
}

TEST(CaptureStderr, innerCaptureHidesItsTextFromTheOuterOne) {
  CaptureStderr outer;
  std::cerr << "before ";
  EXPECT_EQ(stderrOf([] { std::cerr << "inner"; }), "inner");
  std::cerr << "after";
  EXPECT_EQ(outer.text(), "before after");
}

TEST(CaptureStderr, givesTheSameTextTwiceAndCapturesNothingLater) {
  CaptureStderr outer;
  CaptureStderr inner;
  std::cerr << "inner";
  EXPECT_EQ(inner.text(), "inner");
  std::cerr << "outer";
  EXPECT_EQ(inner.text(), "inner");
  EXPECT_EQ(outer.text(), "outer");
}

}  // namespace
