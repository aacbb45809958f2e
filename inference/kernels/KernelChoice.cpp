#include "inference/kernels/KernelChoice.h"

#if !MLNN_BUILT_FOR_SIZE

#include <atomic>
#include <cstdlib>

#include "os/ProcessorCaches.h"

namespace mlnn {
namespace {

std::atomic<const KernelShape*> fixedShape{nullptr};

KernelShape shapeHere() {
  const char* const name = std::getenv("MLNN_KERNEL_SHAPE");
  return kernelShapeFor({processorCache(2), processorCache(3)}, name == nullptr ? "" : name);
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
