// RunnableKernels — which of the kernels that were compiled this processor runs, the best first.
// Found without the heap, since that happens within the first forward pass.
// Internal: not installed.
#pragma once

#include <array>
#include <cstddef>
#include <vector>

#include "inference/kernels/Processor.h"

namespace mlnn {

// REQUIRES: no more than kMost are added.
template <typename Kernels, std::size_t kMost>
class RunnableKernels {
 public:
  void add(const Kernels& found) { kernels_[count_++] = &found; }

  // REQUIRES: some were added.
  const Kernels& best() const { return *kernels_.front(); }

  std::vector<const Kernels*> all() const {
    return {kernels_.begin(), kernels_.begin() + static_cast<std::ptrdiff_t>(count_)};
  }

 private:
  std::array<const Kernels*, kMost> kernels_{};
  std::size_t count_ = 0;
};

}  // namespace mlnn

// For a file that Highway includes for each instruction set, at its end, where HWY_ONCE is set.
#ifdef HWY_TARGETS

#if HWY_TARGETS & HWY_AVX3
#define MLNN_ADD_AVX3(found, kernels) \
  if (hasAvx512()) (found).add(N_AVX3::kernels())
#else
#define MLNN_ADD_AVX3(found, kernels) static_cast<void>(found)
#endif

#if HWY_TARGETS & HWY_AVX2
#define MLNN_ADD_AVX2(found, kernels) \
  if (hasAvx2()) (found).add(N_AVX2::kernels())
#else
#define MLNN_ADD_AVX2(found, kernels) static_cast<void>(found)
#endif

#if HWY_TARGETS & HWY_SSE4
#define MLNN_ADD_SSE4(found, kernels) \
  if (hasSse4()) (found).add(N_SSE4::kernels())
#else
#define MLNN_ADD_SSE4(found, kernels) static_cast<void>(found)
#endif

// What the compiler may use everywhere comes last, and needs no test.
#if HWY_STATIC_TARGET & (HWY_AVX3 | HWY_AVX2 | HWY_SSE4)
#define MLNN_ADD_STATIC(found, kernels) static_cast<void>(found)
#else
#define MLNN_ADD_STATIC(found, kernels) (found).add(HWY_STATIC_DISPATCH(kernels)())
#endif

// Adds what the function `kernels` of each instruction set returns.
#define MLNN_ADD_RUNNABLE(found, kernels) \
  MLNN_ADD_AVX3(found, kernels);          \
  MLNN_ADD_AVX2(found, kernels);          \
  MLNN_ADD_SSE4(found, kernels);          \
  MLNN_ADD_STATIC(found, kernels)

#endif
