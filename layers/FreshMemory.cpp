#include "layers/FreshMemory.h"

#include <sys/mman.h>

#include <cstdint>

namespace mlnn {
namespace {

constexpr std::uintptr_t kPage = 4096;
constexpr std::uintptr_t kHugePage = std::uintptr_t{2} << 20;
constexpr int kPopulateWrite = 23;  // MADV_POPULATE_WRITE, for headers older than Linux 5.14

// Advises on the pages that lie within the array as a whole. The advice may be refused.
void advise(void* data, std::size_t bytes, std::uintptr_t page, int advice) {
  const auto begin = reinterpret_cast<std::uintptr_t>(data);
  const std::uintptr_t first = (begin + page - 1) / page * page;
  const std::uintptr_t last = (begin + bytes) / page * page;
  madvise(reinterpret_cast<void*>(first), last - first, advice);
}

// Whether the array has no memory yet, as its middle tells.
bool isFresh(void* data, std::size_t bytes) {
  const std::uintptr_t middle = reinterpret_cast<std::uintptr_t>(data) + bytes / 2;
  unsigned char isThere = 1;
  return mincore(reinterpret_cast<void*>(middle / kPage * kPage), 1, &isThere) == 0 &&
         (isThere & 1) == 0;
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
