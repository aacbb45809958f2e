#include <gtest/gtest.h>
#include <sched.h>

#include <cstddef>

#include "os/ThreadPlace.h"

namespace {

cpu_set_t allowed() {
  cpu_set_t set;
  CPU_ZERO(&set);
  EXPECT_EQ(sched_getaffinity(0, sizeof set, &set), 0);
  return set;
}

void allow(const cpu_set_t& set) { ASSERT_EQ(sched_setaffinity(0, sizeof set, &set), 0); }

cpu_set_t only(int processor) {
  cpu_set_t set;
  CPU_ZERO(&set);
  CPU_SET(static_cast<unsigned>(processor), &set);
  return set;
}

TEST(ThreadPlace, leavesAProcessorForAnotherAndForbidsNone) {
  const cpu_set_t before = allowed();
  if (CPU_COUNT(&before) < 2) GTEST_SKIP() << "one processor alone";
  for (int processor = 0; processor < CPU_SETSIZE; ++processor) {
    if (!CPU_ISSET(static_cast<unsigned>(processor), &before)) continue;
    // The system may bring it back at once, but seldom.
    bool isElsewhere = false;
    for (int attempt = 0; attempt < 100 && !isElsewhere; ++attempt) {
      allow(only(processor));
      ASSERT_EQ(mlnn::processorInUse(), processor);
      allow(before);
      mlnn::leaveProcessor(processor);
      isElsewhere = mlnn::processorInUse() != processor;
    }
    EXPECT_TRUE(isElsewhere) << processor;
    const cpu_set_t after = allowed();
    EXPECT_TRUE(CPU_EQUAL(&after, &before));
  }
}

TEST(ThreadPlace, staysOnTheOnlyProcessor) {
  const cpu_set_t before = allowed();
  const int processor = mlnn::processorInUse();
  ASSERT_GE(processor, 0);
  allow(only(processor));
  mlnn::leaveProcessor(processor);
  EXPECT_EQ(mlnn::processorInUse(), processor);
  const cpu_set_t after = allowed();
  const cpu_set_t one = only(processor);
  EXPECT_TRUE(CPU_EQUAL(&after, &one));
  allow(before);
}

TEST(ThreadPlace, staysWhereItIsAskedToLeaveAnother) {
  const cpu_set_t before = allowed();
  const int processor = mlnn::processorInUse();
  allow(only(processor));
  mlnn::leaveProcessor(processor + 1);
  mlnn::leaveProcessor(-1);
  EXPECT_EQ(mlnn::processorInUse(), processor);
  const cpu_set_t after = allowed();
  const cpu_set_t one = only(processor);
  EXPECT_TRUE(CPU_EQUAL(&after, &one));
  allow(before);
}

}  // namespace
