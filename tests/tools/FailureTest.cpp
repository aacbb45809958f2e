#include <gtest/gtest.h>

#include <cerrno>
#include <memory>

#include "tests/support/CaptureStderr.h"
#include "tools/Failure.h"

namespace {

using mlnn::Failure;
using mlnn::test::stderrOf;

TEST(Failure, isThrownWhereThereIsNoValue) {
  EXPECT_EQ(mlnn::orFail(std::optional<int>(7), "not reached"), 7);
  EXPECT_EQ(*mlnn::orFail(std::optional(std::make_unique<int>(3)), "not reached"), 3);
  try {
    mlnn::orFail(std::optional<int>(), "there is none");
    FAIL() << "nothing is thrown";
  } catch (const Failure& failure) {
    EXPECT_STREQ(failure.what(), "there is none");
  }
}

TEST(Failure, saysWhyNothingWasWritten) {
  EXPECT_EQ(mlnn::cannotWrite("'a'", ENOSPC), "cannot write 'a': No space left on device");
  EXPECT_EQ(mlnn::cannotWrite("'a'", 0), "cannot write 'a'");
}

TEST(Failure, hasLinesThatBeginWithTheirSeverity) {
  EXPECT_EQ(stderrOf([] {
              mlnn::printError("one");
              mlnn::printWarning("two");
              mlnn::printInfo("three");
            }),
            "ERROR: one\nWarning: two\ninfo: three\n");
}

}  // namespace
