// Stands before the C library's allocation functions: the linker has --wrap for each of them.
#include <malloc.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <new>

#include "os/windows/Windows.h"
#include "tests/support/AllocationCounts.h"

using mlnn::test::AllocationCounts;

const bool mlnn::test::kCanFailAllocations = true;

extern "C" {
void* __real_malloc(std::size_t size);
void* __real_calloc(std::size_t count, std::size_t size);
void* __real_realloc(void* block, std::size_t size);
void __real_free(void* block);
void* __real___emutls_get_address(void* variable);
int __real_pthread_mutex_lock(void* mutex);
}

namespace {

struct Thread {
  AllocationCounts counts;
  int inOwnCode = 0;  // of the compiler's runtime, which ends the process when memory is short
};

// The first call comes before any other thread. Constructed by nothing that could call again.
DWORD slot = TLS_OUT_OF_INDEXES;

// No thread_local: the compiler's own takes memory, and asks here for it.
Thread& here() {
  if (slot == TLS_OUT_OF_INDEXES) slot = TlsAlloc();
  const DWORD error =
      GetLastError();  // which is asked for behind a `free`, and TlsGetValue clears it
  void* const known = TlsGetValue(slot);
  SetLastError(error);
  if (known != nullptr) return *static_cast<Thread*>(known);
  auto* const made = new (__real_malloc(sizeof(Thread))) Thread;
  TlsSetValue(slot, made);
  return *made;
}

bool mustFail() {
  Thread& thread = here();
  return thread.inOwnCode == 0 && thread.counts.takeFailure();
}

// Counts a new block of `size` bytes, or what the heap had instead of one.
void* counted(void* block, std::size_t size) {
  if (block != nullptr) here().counts.addBlock(size, _msize(block));
  return block;
}

// What `call` takes for the runtime itself, at the first use of something, neither fails nor
// counts.
template <typename Call>
auto inOwnCode(Call call) {
  Thread& thread = here();
  const AllocationCounts before = thread.counts;
  ++thread.inOwnCode;
  const auto result = call();
  --thread.inOwnCode;
  thread.counts = before;
  return result;
}

}  // namespace

AllocationCounts& mlnn::test::allocationCounts() { return here().counts; }

extern "C" {

void* __wrap_malloc(std::size_t size) {
  return mustFail() ? nullptr : counted(__real_malloc(size), size);
}

void* __wrap_calloc(std::size_t count, std::size_t size) {
  return mustFail() ? nullptr : counted(__real_calloc(count, size), count * size);
}

void* __wrap_realloc(void* block, std::size_t size) {
  if (mustFail()) return nullptr;
  const std::size_t before = block != nullptr ? _msize(block) : 0;
  void* const moved = counted(__real_realloc(block, size), size);
  if (moved != nullptr && block != nullptr) here().counts.removeBlock(before);
  return moved;
}

void __wrap_free(void* block) {
  const int error = errno;
  if (block != nullptr) here().counts.removeBlock(_msize(block));
  __real_free(block);
  errno = error;
}

// A variable of a thread takes its memory at the first use there.
void* __wrap___emutls_get_address(void* variable) {
  return inOwnCode([&] { return __real___emutls_get_address(variable); });
}

// So does a mutex, and where it gets none the process ends: the one that guards the memory kept for
// exceptions.
int __wrap_pthread_mutex_lock(void* mutex) {
  return inOwnCode([&] { return __real_pthread_mutex_lock(mutex); });
}

// The block lies behind a pointer to where it begins for the heap.
void* watchedAlignedMalloc(std::size_t size, std::size_t alignment) {
  const std::size_t room = sizeof(void*) + alignment - 1;
  auto* const block = static_cast<char*>(__wrap_malloc(size + room));
  if (block == nullptr) return nullptr;
  const std::uintptr_t first = reinterpret_cast<std::uintptr_t>(block) + room;
  void** const aligned = reinterpret_cast<void**>(first - first % alignment);
  aligned[-1] = block;
  return aligned;
}

void watchedAlignedFree(void* block) {
  if (block != nullptr) __wrap_free(static_cast<void**>(block)[-1]);
}

// Through these the standard library calls them, as functions of a DLL.
void* (*__wrap___imp__aligned_malloc)(std::size_t, std::size_t) = watchedAlignedMalloc;
void (*__wrap___imp__aligned_free)(void*) = watchedAlignedFree;

}  // extern "C"
