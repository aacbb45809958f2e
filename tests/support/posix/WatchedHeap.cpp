// Takes the place of glibc's allocation functions, or hooks into the sanitizer's.
#include <malloc.h>

#include <cerrno>
#include <cstdlib>

#include "tests/support/AllocationCounts.h"

#if defined(__SANITIZE_ADDRESS__)
#define MLNN_SANITIZED_HEAP 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define MLNN_SANITIZED_HEAP 1
#endif
#endif

using mlnn::test::AllocationCounts;

namespace {

thread_local AllocationCounts counts;

}  // namespace

AllocationCounts& mlnn::test::allocationCounts() { return counts; }

#ifdef MLNN_SANITIZED_HEAP

// From the sanitizer's runtime; not every compiler ships the header.
extern "C" int __sanitizer_install_malloc_and_free_hooks(
    void (*onMalloc)(const volatile void* block, std::size_t size),
    void (*onFree)(const volatile void* block));
extern "C" std::size_t __sanitizer_get_allocated_size(const volatile void* block);

const bool mlnn::test::kCanFailAllocations = false;

namespace {

[[maybe_unused]] const int hooks = __sanitizer_install_malloc_and_free_hooks(
    [](const volatile void*, std::size_t size) { counts.addBlock(size, size); },
    [](const volatile void* block) {
      if (block != nullptr) counts.removeBlock(__sanitizer_get_allocated_size(block));
    });

}  // namespace

#else

const bool mlnn::test::kCanFailAllocations = true;

namespace {

// Counts a new block of `size` bytes, or what the heap had instead of one.
void* counted(void* block, std::size_t size) {
  if (block != nullptr) counts.addBlock(size, malloc_usable_size(block));
  return block;
}

}  // namespace

extern "C" {

void* __libc_malloc(std::size_t size);
void* __libc_calloc(std::size_t count, std::size_t size);
void* __libc_realloc(void* block, std::size_t size);
void* __libc_memalign(std::size_t alignment, std::size_t size);
void __libc_free(void* block);

void* malloc(std::size_t size) noexcept {
  if (counts.takeFailure()) return nullptr;
  return counted(__libc_malloc(size), size);
}

void* calloc(std::size_t count, std::size_t size) noexcept {
  if (counts.takeFailure()) return nullptr;
  return counted(__libc_calloc(count, size), count * size);
}

void* realloc(void* block, std::size_t size) noexcept {
  if (counts.takeFailure()) return nullptr;
  const std::size_t before = block != nullptr ? malloc_usable_size(block) : 0;
  void* const moved = counted(__libc_realloc(block, size), size);
  if (moved != nullptr && block != nullptr) counts.removeBlock(before);
  return moved;
}

void* aligned_alloc(std::size_t alignment, std::size_t size) noexcept {
  if (counts.takeFailure()) return nullptr;
  return counted(__libc_memalign(alignment, size), size);
}

int posix_memalign(void** block, std::size_t alignment, std::size_t size) noexcept {
  *block = aligned_alloc(alignment, size);
  return *block != nullptr ? 0 : ENOMEM;
}

void free(void* block) noexcept {
  if (block != nullptr) counts.removeBlock(malloc_usable_size(block));
  __libc_free(block);
}

}  // extern "C"

#endif
