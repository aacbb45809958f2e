#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <new>
#include <stdexcept>
#include <thread>
#include <vector>

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

// Two threads leave the first parts together, and both want the last one.
TEST(WorkerPool, givesTheLastPartToOneOfThoseThatWantIt) {
  constexpr int kRounds = 500;
  WorkerPool pool(2);
  ASSERT_EQ(pool.count(), 2);
  std::array<std::atomic<int>, 3> taken{};
  for (int round = 0; round < kRounds; ++round) {
    std::atomic<int> inside{0};
    pool.run(3, [&](int part, int) {
      ++taken[static_cast<std::size_t>(part)];
      if (part == 2) return;
      ++inside;
      while (inside < 2) std::this_thread::yield();
    });
  }
  for (const std::atomic<int>& times : taken) EXPECT_EQ(times, kRounds);
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

}  // namespace
