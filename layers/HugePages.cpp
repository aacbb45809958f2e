#include "layers/HugePages.h"

#include <sys/mman.h>

#include <cstdint>

namespace mlnn {

void adviseHugePages([[maybe_unused]] void* data, [[maybe_unused]] std::size_t bytes) {
#ifdef MADV_HUGEPAGE
  constexpr std::uintptr_t kPage = std::uintptr_t{2} << 20;
  if (bytes < 2 * kPage) return;
  const auto begin = reinterpret_cast<std::uintptr_t>(data);
  const std::uintptr_t first = (begin + kPage - 1) / kPage * kPage;
  const std::uintptr_t last = (begin + bytes) / kPage * kPage;
  madvise(reinterpret_cast<void*>(first), last - first, MADV_HUGEPAGE);  // may be refused
#endif
}

}  // namespace mlnn
