#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <new>
#include <stdexcept>
#include <thread>
#include <vector>

#include "inference/WorkSplit.h"
#include "inference/WorkerPool.h"

namespace {

using mlnn::WorkerPool;

TEST(WorkerPool, takesEachPartOnce) {
  for (const int threads : {1, 2, 7}) {
    WorkerPool pool(threads);
    EXPECT_EQ(pool.count(), threads);
    for (const int parts : {0, 1, 2, 7, 100}) {
      std::vector<std::atomic<int>> taken(100);
      std::atomic<bool> areWorkersKnown{true};
      pool.run(parts, [&](int part, int worker) {
        ++taken[static_cast<std::size_t>(part)];
        if (worker < 0 || worker >= threads) areWorkersKnown = false;
      });
      for (int part = 0; part < 100; ++part) {
        EXPECT_EQ(taken[static_cast<std::size_t>(part)], part < parts ? 1 : 0);
      }
      EXPECT_TRUE(areWorkersKnown);
    }
  }
}

TEST(WorkerPool, givesEachThreadANumberOfItsOwn) {
  WorkerPool pool(4);
  for (int round = 0; round < 50; ++round) {
    std::vector<std::atomic<int>> inside(4);
    std::atomic<bool> meet{false};
    pool.run(40, [&](int, int worker) {
      if (++inside[static_cast<std::size_t>(worker)] > 1) meet = true;
      std::this_thread::yield();
      --inside[static_cast<std::size_t>(worker)];
    });
    ASSERT_FALSE(meet);
  }
}

TEST(WorkerPool, bringsAnExceptionToTheCallerAndGoesOn) {
  WorkerPool pool(3);
  for (int round = 0; round < 20; ++round) {
    EXPECT_THROW(pool.run(9,
                          [](int part, int) {
                            if (part == 5) throw std::bad_alloc();
                          }),
                 std::bad_alloc);
    EXPECT_THROW(pool.run(9, [](int, int) { throw std::runtime_error("all of them"); }),
                 std::runtime_error);
    std::atomic<int> done{0};
    pool.run(9, [&](int, int) { ++done; });
    EXPECT_EQ(done, 9);
  }
}

TEST(WorkerPool, runsInTheCallingThreadWhereAnotherCallHasTheThreads) {
  WorkerPool pool(2);
  std::atomic<int> done{0};
  pool.run(2, [&](int, int) { pool.run(3, [&](int, int) { ++done; }); });
  EXPECT_EQ(done, 6);
}

// In a process of its own, which may have no more threads. A superuser has no such limit.
TEST(WorkerPool, makesDoWithTheThreadsThatTheSystemGives) {
  const pid_t child = fork();
  if (child == 0) {
    const rlimit none{0, 0};
    const bool isLimited = setrlimit(RLIMIT_NPROC, &none) == 0;
    if (isLimited && geteuid() == 0 && setuid(65534) != 0) _exit(0);
    WorkerPool pool(5);
    std::atomic<int> done{0};
    pool.run(9, [&](int, int) { ++done; });
    _exit(done == 9 && pool.count() >= 1 && pool.count() <= 5 ? 0 : 1);
  }
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0);
}

TEST(WorkSplit, wakesNoThreadForLittle) {
  EXPECT_EQ(mlnn::frameParts(1000, 1, 8), 1U);
  EXPECT_EQ(mlnn::frameParts(1000, 100, 8), 1U);
  EXPECT_EQ(mlnn::frameParts(1000, 0, 8), 1U);
  EXPECT_EQ(mlnn::frameParts(uint64_t{1} << 18, 1, 8), 1U);
  EXPECT_EQ(mlnn::frameParts(uint64_t{1} << 18, 2, 8), 2U);
  EXPECT_EQ(mlnn::frameParts(uint64_t{1} << 18, 100, 1), 1U);
  EXPECT_EQ(mlnn::rowParts(1000, uint64_t{1} << 18, 8), 1U);
  EXPECT_EQ(mlnn::rowParts(127, uint64_t{1} << 30, 8), 1U);
}

TEST(WorkSplit, makesPartsOfAboutAsManyFramesForEachThread) {
  EXPECT_EQ(mlnn::frameParts(uint64_t{1} << 20, 512, 2), 2U);
  EXPECT_EQ(mlnn::frameParts(uint64_t{1} << 20, 513, 2), 4U);
  EXPECT_EQ(mlnn::frameParts(uint64_t{1} << 20, 3, 8), 3U);
}

TEST(WorkSplit, takesRowsWhereFramesAreFewAndWeightsLarge) {
  EXPECT_TRUE(mlnn::splitsRows(uint64_t{1} << 18, 1, 2));
  EXPECT_TRUE(mlnn::splitsRows(uint64_t{1} << 18, 31, 2));
  EXPECT_FALSE(mlnn::splitsRows(uint64_t{1} << 18, 32, 2));
  EXPECT_FALSE(mlnn::splitsRows((uint64_t{1} << 18) - 1, 1, 2));
  EXPECT_EQ(mlnn::rowParts(1030, uint64_t{1} << 20, 4), 4U);
  EXPECT_EQ(mlnn::rowParts(130, uint64_t{1} << 20, 4), 2U);
}

TEST(WorkSplit, coversAllThings) {
  for (const std::size_t things : std::vector<std::size_t>{0, 1, 7, 64}) {
    EXPECT_EQ(mlnn::partBegin(0, 3, things), 0U);
    EXPECT_EQ(mlnn::partBegin(3, 3, things), things);
  }
  EXPECT_EQ(mlnn::partBegin(1, 3, 7), 2U);
  EXPECT_EQ(mlnn::partBegin(2, 3, 7), 4U);
}

}  // namespace
