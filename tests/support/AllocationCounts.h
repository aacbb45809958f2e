// AllocationCounts — what AllocationWatch knows of one thread. The heap of a system,
// WatchedHeap.cpp in its folder, fills it in.
#pragma once

#include <cstddef>

#include "tests/support/AllocationWatch.h"

namespace mlnn::test {

struct AllocationCounts {
  std::size_t allocations = 0;
  std::size_t largest = 0;
  std::ptrdiff_t live = 0;
  std::size_t total = 0;
  std::ptrdiff_t held = 0;
  std::ptrdiff_t peak = 0;
  bool failureIsSet = false;
  bool failureHappened = false;
  Failing mode = Failing::kOnce;
  std::size_t successesLeft = 0;

  // A new block, of which `asked` bytes were wanted and the heap gave `given`.
  void addBlock(std::size_t asked, std::size_t given);
  void removeBlock(std::size_t given);
  // Whether the next allocation is to fail. Sets errno where it is.
  bool takeFailure();
};

// Those of the calling thread. Takes nothing from the heap that is counted.
AllocationCounts& allocationCounts();

}  // namespace mlnn::test
