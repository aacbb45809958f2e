// Compiles the kernels for every instruction set, and chooses among them at run time.
//
// Highway provides the vectors, and includes this file once for each instruction set. Only
// its headers are used: its own choice at run time would need its library.
#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "inference/kernels/Kernels.cpp"
#include "inference/kernels/VectorTargets.h"
//
#include "hwy/foreach_target.h"
//
#include <array>

#include "inference/kernels/Activations-inl.h"
#include "inference/kernels/Kernels.h"
#include "inference/kernels/LeaveVectors-inl.h"
#include "inference/kernels/Processor.h"
#include "inference/kernels/RowCodes-inl.h"
#include "inference/kernels/ScalarOps.h"
#include "layers/BuiltForSize.h"
#if MLNN_BUILT_FOR_SIZE
#include "inference/kernels/MatrixForSize-inl.h"
#else
#include "inference/kernels/MatrixFrames-inl.h"
#include "inference/kernels/MatrixVector-inl.h"
#endif

HWY_BEFORE_NAMESPACE();
namespace mlnn {
namespace HWY_NAMESPACE {

const Kernels& kernels() {
  static const Kernels kKernels = {hwy::TargetName(HWY_TARGET),
                                   kFuses,
                                   kLanes,
                                   asKernel<matrixVector>(),
                                   asKernel<rowCodesVector>(),
                                   asKernel<matrixFrames>(),
                                   asKernel<activate>(),
                                   asKernel<softmax>()};
  return kKernels;
}

#if HWY_TARGET == HWY_STATIC_TARGET

// One value at a time; for what the compiler may use everywhere only.
float scalarActivated(ActFn::ActFn fn, float x) {
  return activatedBy<ActivationFormulas<ScalarOps>>(fn, x);
}

float scalarExpOfNegative(float x) { return ActivationFormulas<ScalarOps>::expOfNegative(x); }

#endif

}  // namespace HWY_NAMESPACE
}  // namespace mlnn
HWY_AFTER_NAMESPACE();

#if HWY_ONCE
namespace mlnn {

namespace {

// The kernels that this processor runs, the best first. Found without the heap, since that
// happens within the first forward pass.
struct Runnable {
  std::array<const Kernels*, 4> kernels{};
  std::size_t count = 0;

  void add(const Kernels& found) { kernels[count++] = &found; }
};

// What the compiler may use everywhere comes last, and needs no test.
Runnable findRunnable() {
  Runnable found;
#if HWY_TARGETS & HWY_AVX3
  if (hasAvx512()) found.add(N_AVX3::kernels());
#endif
#if HWY_TARGETS & HWY_AVX2
  if (hasAvx2()) found.add(N_AVX2::kernels());
#endif
#if HWY_TARGETS & HWY_SSE4
  if (hasSse4()) found.add(N_SSE4::kernels());
#endif
#if !(HWY_STATIC_TARGET & (HWY_AVX3 | HWY_AVX2 | HWY_SSE4))
  found.add(HWY_STATIC_DISPATCH(kernels)());
#endif
  return found;
}

}  // namespace

float activated(ActFn::ActFn fn, float x) { return HWY_STATIC_DISPATCH(scalarActivated)(fn, x); }

float singleExpOfNegative(float x) { return HWY_STATIC_DISPATCH(scalarExpOfNegative)(x); }

std::vector<const Kernels*> runnableKernels() {
  const Runnable runnable = findRunnable();
  return {runnable.kernels.begin(),
          runnable.kernels.begin() + static_cast<std::ptrdiff_t>(runnable.count)};
}

const Kernels& bestKernels() {
  static const Kernels& best = *findRunnable().kernels.front();
  return best;
}

}  // namespace mlnn
#endif
