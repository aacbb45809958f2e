// Compiles the floats of the integer pass for every instruction set, as Kernels.cpp does with the
// other kernels.
#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "inference/kernels/UnfusedKernels.cpp"
#include "inference/kernels/VectorTargets.h"
//
#include "hwy/foreach_target.h"
//
#include <array>

#include "inference/kernels/LeaveVectors-inl.h"
#include "inference/kernels/Processor.h"
#include "inference/kernels/ScalarOps.h"
#include "inference/kernels/Unfused-inl.h"
#include "inference/kernels/UnfusedKernels.h"

HWY_BEFORE_NAMESPACE();
namespace mlnn {
namespace HWY_NAMESPACE {

const UnfusedKernels& unfusedKernels() {
  static const UnfusedKernels kKernels = {hwy::TargetName(HWY_TARGET), asKernel<toBytes>(),
                                          asKernel<toWords>(),         asKernel<finish>(),
                                          asKernel<multiply>(),        asKernel<unfusedSoftmax>(),
                                          asKernel<giveOneNaN>()};
  return kKernels;
}

#if HWY_TARGET == HWY_STATIC_TARGET

struct UnfusedScalarOps : ScalarOps {
  static float fma(float a, float b, float c) { return a * b + c; }
  static float atMost(float limit, float a) { return limit < a ? limit : a; }
};

// One value at a time; for what the compiler may use everywhere only.
float scalarUnfusedActivated(ActFn::ActFn fn, float x) {
  return activatedBy<UnfusedFormulas<UnfusedScalarOps>>(fn, x);
}

float scalarUnfusedExpOfNegative(float x) {
  return ActivationFormulas<UnfusedScalarOps>::expOfNegative(x);
}

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
  std::array<const UnfusedKernels*, 4> kernels{};
  std::size_t count = 0;

  void add(const UnfusedKernels& found) { kernels[count++] = &found; }
};

// What the compiler may use everywhere comes last, and needs no test.
Runnable findRunnable() {
  Runnable found;
#if HWY_TARGETS & HWY_AVX3
  if (hasAvx512()) found.add(N_AVX3::unfusedKernels());
#endif
#if HWY_TARGETS & HWY_AVX2
  if (hasAvx2()) found.add(N_AVX2::unfusedKernels());
#endif
#if HWY_TARGETS & HWY_SSE4
  if (hasSse4()) found.add(N_SSE4::unfusedKernels());
#endif
#if !(HWY_STATIC_TARGET & (HWY_AVX3 | HWY_AVX2 | HWY_SSE4))
  found.add(HWY_STATIC_DISPATCH(unfusedKernels)());
#endif
  return found;
}

}  // namespace

float unfusedActivated(ActFn::ActFn fn, float x) {
  return HWY_STATIC_DISPATCH(scalarUnfusedActivated)(fn, x);
}

float unfusedExpOfNegative(float x) { return HWY_STATIC_DISPATCH(scalarUnfusedExpOfNegative)(x); }

std::vector<const UnfusedKernels*> runnableUnfusedKernels() {
  const Runnable runnable = findRunnable();
  return {runnable.kernels.begin(),
          runnable.kernels.begin() + static_cast<std::ptrdiff_t>(runnable.count)};
}

const UnfusedKernels& bestUnfusedKernels() {
  static const UnfusedKernels& best = *findRunnable().kernels.front();
  return best;
}

}  // namespace mlnn
#endif
