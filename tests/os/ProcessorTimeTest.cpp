#include <gtest/gtest.h>

#include "os/ProcessorTime.h"

namespace {

// A clock that stands still would let whoever measures wait for ever.
TEST(ProcessorTime, goesOnWhileTheThreadWorks) {
  const double start = mlnn::processorSeconds();
  double last = start;
  while (last - start < 0.0005) {
    const double now = mlnn::processorSeconds();
    ASSERT_LE(last, now);
    last = now;
  }
}

}  // namespace
