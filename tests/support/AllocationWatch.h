// AllocationWatch — counts what a stretch of code takes from the heap, and can make an
// allocation fail.
//
// AllocationWatch.cpp replaces the allocation functions of the program that it is linked into
// (under AddressSanitizer it hooks into the sanitizer's), so that nothing escapes: operator
// new, malloc and the matrix library alike. Give it as a further source to the tests that use it.
// Thread-safety: only what the calling thread does is counted or made to fail.
#pragma once

#include <cstddef>

namespace mlnn::test {

// Whether an allocation can be made to fail; a sanitizer's heap does not let itself be replaced.
extern const bool kCanFailAllocations;

class AllocationWatch {
 public:
  AllocationWatch();

  // Since construction: the number of allocations, and the largest one in bytes.
  std::size_t allocations() const;
  std::size_t largest() const;

  // Since construction, in bytes: all that was allocated, freed again or not, and the most that
  // was held at one time. Blocks count with the size that the heap gave them.
  std::size_t total() const;
  std::size_t peak() const;

  // Blocks allocated minus blocks freed since construction: 0 where nothing leaked.
  std::ptrdiff_t live() const;

 private:
  std::size_t allocationsBefore_;
  std::size_t totalBefore_;
  std::ptrdiff_t liveBefore_;
  std::ptrdiff_t heldBefore_;
};

enum class Failing {
  kOnce,        // memory is short for a moment
  kFromThenOn,  // there is no more
};

// Makes allocations fail: the first `successes` of the calling thread succeed, the next one
// does not, and none after it until destruction where that is asked for.
class FailingAllocation {
 public:
  explicit FailingAllocation(std::size_t successes, Failing mode = Failing::kOnce);
  ~FailingAllocation();
  FailingAllocation(const FailingAllocation&) = delete;
  FailingAllocation& operator=(const FailingAllocation&) = delete;

  // Whether one has failed; false when the code did not allocate that often.
  bool happened() const;
};

}  // namespace mlnn::test
