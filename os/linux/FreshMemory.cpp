#include "os/FreshMemory.h"

#include <sys/mman.h>

#include <cstdint>

namespace mlnn {
namespace {

constexpr std::uintptr_t kPage = 4096;
constexpr std::uintptr_t kHugePage = std::uintptr_t{2} << 20;
constexpr int kPopulateWrite = 23;  // MADV_POPULATE_WRITE, for headers older than Linux 5.14

// Advises on the pages that lie within the array as a whole. The advice may be refused.
// REQUIRES: the array is as long as two pages.
void advise(void* data, std::size_t bytes, std::uintptr_t page, int advice) {
  const auto begin = reinterpret_cast<std::uintptr_t>(data);
  const std::size_t before = (page - begin % page) % page;
  const std::size_t behind = (begin + bytes) % page;
  madvise(static_cast<char*>(data) + before, bytes - before - behind, advice);
}

// Whether the array has no memory yet, as its middle tells.
// REQUIRES: the array is longer than two pages.
bool isFresh(void* data, std::size_t bytes) {
  char* const middle = static_cast<char*>(data) + bytes / 2;
  char* const page = middle - reinterpret_cast<std::uintptr_t>(middle) % kPage;
  unsigned char isThere = 1;
  return mincore(page, 1, &isThere) == 0 && (isThere & 1) == 0;
}

}  // namespace

void adviseHugePages(void* data, std::size_t bytes) {
  if (bytes >= 2 * kHugePage) advise(data, bytes, kHugePage, MADV_HUGEPAGE);
}

void supplyPages(void* data, std::size_t bytes) {
  constexpr std::size_t kFewest = 16 * kPage;  // fewer faults are not worth the calls
  if (bytes >= kFewest && isFresh(data, bytes)) advise(data, bytes, kPage, kPopulateWrite);
}

}  // namespace mlnn
