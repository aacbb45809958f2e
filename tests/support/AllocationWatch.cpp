#include "tests/support/AllocationWatch.h"

#include <malloc.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>

#if defined(__SANITIZE_ADDRESS__)
#define MLNN_SANITIZED_HEAP 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define MLNN_SANITIZED_HEAP 1
#endif
#endif

namespace {

struct Counters {
  std::size_t allocations = 0;
  std::size_t largest = 0;
  std::ptrdiff_t live = 0;
  std::size_t total = 0;
  std::ptrdiff_t held = 0;
  std::ptrdiff_t peak = 0;
  bool failureIsSet = false;
  bool failureHappened = false;
  mlnn::test::Failing mode = mlnn::test::Failing::kOnce;
  std::size_t successesLeft = 0;
};
thread_local Counters counters;

void countAllocation(std::size_t size) {
  ++counters.allocations;
  ++counters.live;
  counters.largest = std::max(counters.largest, size);
}

void countBytes(std::size_t size) {
  counters.total += size;
  counters.held += static_cast<std::ptrdiff_t>(size);
  counters.peak = std::max(counters.peak, counters.held);
}

void countFree(std::size_t size) {
  --counters.live;
  counters.held -= static_cast<std::ptrdiff_t>(size);
}

}  // namespace

#ifdef MLNN_SANITIZED_HEAP

// From the sanitizer's runtime; not every compiler ships the header.
extern "C" int __sanitizer_install_malloc_and_free_hooks(
    void (*onMalloc)(const volatile void* block, std::size_t size),
    void (*onFree)(const volatile void* block));
extern "C" std::size_t __sanitizer_get_allocated_size(const volatile void* block);

const bool mlnn::test::kCanFailAllocations = false;

namespace {

[[maybe_unused]] const int hooks = __sanitizer_install_malloc_and_free_hooks(
    [](const volatile void*, std::size_t size) {
      countAllocation(size);
      countBytes(size);
    },
    [](const volatile void* block) {
      if (block != nullptr) countFree(__sanitizer_get_allocated_size(block));
    });

}  // namespace

#else

const bool mlnn::test::kCanFailAllocations = true;

namespace {

bool mustFail() {
  if (!counters.failureIsSet) return false;
  if (counters.successesLeft > 0) {
    --counters.successesLeft;
    return false;
  }
  counters.failureIsSet = counters.mode == mlnn::test::Failing::kFromThenOn;
  counters.failureHappened = true;
  errno = ENOMEM;
  return true;
}

// Counts a new block of `size` bytes, or what the heap had instead of one.
void* counted(void* block, std::size_t size) {
  if (block == nullptr) return block;
  countAllocation(size);
  countBytes(malloc_usable_size(block));
  return block;
}

void countFree(void* block) {
  if (block != nullptr) countFree(malloc_usable_size(block));
}

}  // namespace

extern "C" {

void* __libc_malloc(std::size_t size);
void* __libc_calloc(std::size_t count, std::size_t size);
void* __libc_realloc(void* block, std::size_t size);
void* __libc_memalign(std::size_t alignment, std::size_t size);
void __libc_free(void* block);

void* malloc(std::size_t size) noexcept {
  if (mustFail()) return nullptr;
  return counted(__libc_malloc(size), size);
}

void* calloc(std::size_t count, std::size_t size) noexcept {
  if (mustFail()) return nullptr;
  return counted(__libc_calloc(count, size), count * size);
}

void* realloc(void* block, std::size_t size) noexcept {
  if (mustFail()) return nullptr;
  const std::size_t before = block != nullptr ? malloc_usable_size(block) : 0;
  void* const moved = counted(__libc_realloc(block, size), size);
  if (moved != nullptr && block != nullptr) countFree(before);
  return moved;
}

void* aligned_alloc(std::size_t alignment, std::size_t size) noexcept {
  if (mustFail()) return nullptr;
  return counted(__libc_memalign(alignment, size), size);
}

int posix_memalign(void** block, std::size_t alignment, std::size_t size) noexcept {
  *block = aligned_alloc(alignment, size);
  return *block != nullptr ? 0 : ENOMEM;
}

void free(void* block) noexcept {
  countFree(block);
  __libc_free(block);
}

}  // extern "C"

#endif

namespace mlnn::test {

AllocationWatch::AllocationWatch()
    : allocationsBefore_(counters.allocations),
      totalBefore_(counters.total),
      liveBefore_(counters.live),
      heldBefore_(counters.held) {
  counters.largest = 0;
  counters.peak = counters.held;
}

std::size_t AllocationWatch::allocations() const {
  return counters.allocations - allocationsBefore_;
}

std::size_t AllocationWatch::largest() const { return counters.largest; }

std::size_t AllocationWatch::total() const { return counters.total - totalBefore_; }

std::size_t AllocationWatch::peak() const {
  return static_cast<std::size_t>(counters.peak - heldBefore_);
}

std::ptrdiff_t AllocationWatch::live() const { return counters.live - liveBefore_; }

FailingAllocation::FailingAllocation(std::size_t successes, Failing mode) {
  counters.successesLeft = successes;
  counters.mode = mode;
  counters.failureHappened = false;
  counters.failureIsSet = true;
}

FailingAllocation::~FailingAllocation() { counters.failureIsSet = false; }

bool FailingAllocation::happened() const { return counters.failureHappened; }

}  // namespace mlnn::test
