#include "tests/support/AllocationWatch.h"

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
  bool failureIsSet = false;
  std::size_t successesLeft = 0;
};
thread_local Counters counters;

void countAllocation(std::size_t size) {
  ++counters.allocations;
  ++counters.live;
  counters.largest = std::max(counters.largest, size);
}

void countFree() { --counters.live; }

}  // namespace

#ifdef MLNN_SANITIZED_HEAP

// From the sanitizer's runtime; not every compiler ships the header.
extern "C" int __sanitizer_install_malloc_and_free_hooks(
    void (*onMalloc)(const volatile void* block, std::size_t size),
    void (*onFree)(const volatile void* block));

const bool mlnn::test::kCanFailAllocations = false;

namespace {

[[maybe_unused]] const int hooks = __sanitizer_install_malloc_and_free_hooks(
    [](const volatile void*, std::size_t size) { countAllocation(size); },
    [](const volatile void* block) {
      if (block != nullptr) countFree();
    });

}  // namespace

#else

const bool mlnn::test::kCanFailAllocations = true;

namespace {

bool mustFail() {
  if (!counters.failureIsSet || counters.successesLeft-- > 0) return false;
  counters.failureIsSet = false;
  errno = ENOMEM;
  return true;
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
  void* block = __libc_malloc(size);
  if (block != nullptr) countAllocation(size);
  return block;
}

void* calloc(std::size_t count, std::size_t size) noexcept {
  if (mustFail()) return nullptr;
  void* block = __libc_calloc(count, size);
  if (block != nullptr) countAllocation(count * size);
  return block;
}

void* realloc(void* block, std::size_t size) noexcept {
  if (mustFail()) return nullptr;
  void* moved = __libc_realloc(block, size);
  if (moved != nullptr) countAllocation(size);
  if (moved != nullptr && block != nullptr) countFree();
  return moved;
}

void* aligned_alloc(std::size_t alignment, std::size_t size) noexcept {
  if (mustFail()) return nullptr;
  void* block = __libc_memalign(alignment, size);
  if (block != nullptr) countAllocation(size);
  return block;
}

int posix_memalign(void** block, std::size_t alignment, std::size_t size) noexcept {
  *block = aligned_alloc(alignment, size);
  return *block != nullptr ? 0 : ENOMEM;
}

void free(void* block) noexcept {
  if (block != nullptr) countFree();
  __libc_free(block);
}

}  // extern "C"

#endif

namespace mlnn::test {

AllocationWatch::AllocationWatch()
    : allocationsBefore_(counters.allocations), liveBefore_(counters.live) {
  counters.largest = 0;
}

std::size_t AllocationWatch::allocations() const {
  return counters.allocations - allocationsBefore_;
}

std::size_t AllocationWatch::largest() const { return counters.largest; }

std::ptrdiff_t AllocationWatch::live() const { return counters.live - liveBefore_; }

FailingAllocation::FailingAllocation(std::size_t successes) {
  counters.successesLeft = successes;
  counters.failureIsSet = true;
}

FailingAllocation::~FailingAllocation() { counters.failureIsSet = false; }

bool FailingAllocation::happened() const { return !counters.failureIsSet; }

}  // namespace mlnn::test
