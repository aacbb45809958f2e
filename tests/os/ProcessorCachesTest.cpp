#include <gtest/gtest.h>

#include "os/ProcessorCaches.h"

namespace {

TEST(ProcessorCaches, areUnknownOrWholeKilobytes) {
  for (const int level : {2, 3}) {
    const std::size_t bytes = mlnn::processorCache(level);
    EXPECT_EQ(bytes % 1024, 0u) << level;
    EXPECT_EQ(mlnn::processorCache(level), bytes) << level;
  }
}

}  // namespace
