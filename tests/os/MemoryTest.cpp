#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include "os/Memory.h"

namespace {

TEST(Memory, isThatOfTheMachineAtMost) {
  const auto pages = static_cast<uint64_t>(sysconf(_SC_PHYS_PAGES));
  const auto bytes = static_cast<uint64_t>(sysconf(_SC_PAGESIZE));
  EXPECT_GT(mlnn::memoryOfProcess(), 0u);
  EXPECT_LE(mlnn::memoryOfProcess(), pages * bytes);
}

TEST(Memory, isWhatTheProcessIsLimitedTo) {
  EXPECT_EXIT(
      {
        constexpr rlim_t kLimit = 48 << 20;
        rlimit limit;
        limit.rlim_cur = limit.rlim_max = kLimit;
        if (setrlimit(RLIMIT_AS, &limit) != 0) _exit(4);
        _exit(mlnn::memoryOfProcess() == kLimit ? 0 : 3);
      },
      testing::ExitedWithCode(0), "^$");
}

}  // namespace
