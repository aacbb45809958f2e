#include "tests/support/AllocationWatch.h"

#include <algorithm>
#include <cerrno>

#include "tests/support/AllocationCounts.h"

namespace mlnn::test {

void AllocationCounts::addBlock(std::size_t asked, std::size_t given) {
  ++allocations;
  ++live;
  largest = std::max(largest, asked);
  total += given;
  held += static_cast<std::ptrdiff_t>(given);
  peak = std::max(peak, held);
}

void AllocationCounts::removeBlock(std::size_t given) {
  --live;
  held -= static_cast<std::ptrdiff_t>(given);
}

bool AllocationCounts::takeFailure() {
  if (!failureIsSet) return false;
  if (successesLeft > 0) {
    --successesLeft;
    return false;
  }
  failureIsSet = mode == Failing::kFromThenOn;
  failureHappened = true;
  errno = ENOMEM;
  return true;
}

AllocationWatch::AllocationWatch()
    : allocationsBefore_(allocationCounts().allocations),
      totalBefore_(allocationCounts().total),
      liveBefore_(allocationCounts().live),
      heldBefore_(allocationCounts().held) {
  allocationCounts().largest = 0;
  allocationCounts().peak = heldBefore_;
}

std::size_t AllocationWatch::allocations() const {
  return allocationCounts().allocations - allocationsBefore_;
}

std::size_t AllocationWatch::largest() const { return allocationCounts().largest; }

std::size_t AllocationWatch::total() const { return allocationCounts().total - totalBefore_; }

std::size_t AllocationWatch::peak() const {
  return static_cast<std::size_t>(allocationCounts().peak - heldBefore_);
}

std::ptrdiff_t AllocationWatch::live() const { return allocationCounts().live - liveBefore_; }

FailingAllocation::FailingAllocation(std::size_t successes, Failing mode) {
  AllocationCounts& counts = allocationCounts();
  counts.successesLeft = successes;
  counts.mode = mode;
  counts.failureHappened = false;
  counts.failureIsSet = true;
}

FailingAllocation::~FailingAllocation() { allocationCounts().failureIsSet = false; }

bool FailingAllocation::happened() const { return allocationCounts().failureHappened; }

}  // namespace mlnn::test
