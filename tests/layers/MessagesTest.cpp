#include <gtest/gtest.h>

#include <iomanip>
#include <iostream>
#include <locale>
#include <thread>

#include "layers/Messages.h"
#include "model/MultiLayerNNModel.h"
#include "tests/support/CaptureStderr.h"

using mlnn::CollectedMessages;

namespace {

// What a model says to a bad request and to a good one: a line of each way of printing.
void makeModelSpeak() {
  MultiLayerNNModel model;
  model.retainPrecisionBits(32);
  model.retainPrecisionBits(3);
}

constexpr char kSpoken[] =
    "ERROR: MultiLayerNNModel::retainPrecisionBits: bits must be 0 to 31, got 32\n"
    "v_range 0.000000 - 0.000000 (0.000000), p_range 8\n";

}  // namespace

TEST(Messages, goToTheStandardErrorStreamUnlessCollected) {
  mlnn::test::CaptureStderr captured;
  makeModelSpeak();
  EXPECT_EQ(captured.text(), kSpoken);
}

TEST(Messages, keepTheFormatOfTheStandardErrorStream) {
  mlnn::test::CaptureStderr captured;
  std::cerr << std::hex;
  mlnn::messages() << 255 << '\n';
  std::cerr << std::dec;
  EXPECT_EQ(captured.text(), "ff\n");
}

TEST(CollectedMessages, takeAllThatThisThreadWouldPrint) {
  mlnn::test::CaptureStderr captured;
  {
    const CollectedMessages collected;
    makeModelSpeak();
    EXPECT_EQ(collected.text(), kSpoken);
  }
  EXPECT_EQ(captured.text(), "");
}

TEST(CollectedMessages, leaveOtherThreadsAlone) {
  mlnn::test::CaptureStderr captured;
  const CollectedMessages collected;
  std::thread(makeModelSpeak).join();
  EXPECT_EQ(collected.text(), "");
  EXPECT_EQ(captured.text(), kSpoken);
}

TEST(CollectedMessages, nestAndHandBackToTheOuterOne) {
  const CollectedMessages outer;
  {
    const CollectedMessages inner;
    mlnn::messages() << "inner\n";
    EXPECT_EQ(inner.text(), "inner\n");
  }
  mlnn::printMessage("outer\n");
  EXPECT_EQ(outer.text(), "outer\n");
}

TEST(CollectedMessages, haveNoGroupedNumbersWhateverTheLocale) {
  struct Grouping : std::numpunct<char> {
    std::string do_grouping() const override { return "\3"; }
  };
  const std::locale before = std::locale::global(std::locale(std::locale::classic(), new Grouping));
  {
    const CollectedMessages collected;
    mlnn::messages() << 1234567 << "\n";
    EXPECT_EQ(collected.text(), "1234567\n");
  }
  std::locale::global(before);
}
