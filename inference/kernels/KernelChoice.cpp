#include "inference/kernels/KernelChoice.h"

#if !MLNN_BUILT_FOR_SIZE

#include <atomic>
#include <cstdlib>

#if __has_include(<unistd.h>)
#include <unistd.h>
#endif

namespace mlnn {
namespace {

std::atomic<const KernelShape*> fixedShape{nullptr};

#ifdef _SC_LEVEL2_CACHE_SIZE
std::size_t cacheSize(int level) {
  const long bytes = sysconf(level);
  return bytes > 0 ? static_cast<std::size_t>(bytes) : 0;
}

CacheSizes cacheSizes() {
  return {cacheSize(_SC_LEVEL2_CACHE_SIZE), cacheSize(_SC_LEVEL3_CACHE_SIZE)};
}
#else
CacheSizes cacheSizes() { return {0, 0}; }
#endif

KernelShape shapeHere() {
  const char* const name = std::getenv("MLNN_KERNEL_SHAPE");
  return kernelShapeFor(cacheSizes(), name == nullptr ? "" : name);
}

}  // namespace

const KernelShape& kernelShape() {
  const KernelShape* const fixed = fixedShape.load(std::memory_order_acquire);
  if (fixed != nullptr) return *fixed;
  static const KernelShape here = shapeHere();
  return here;
}

void fixKernelShape(const KernelShape* shape) {
  fixedShape.store(shape, std::memory_order_release);
}

}  // namespace mlnn

#endif
