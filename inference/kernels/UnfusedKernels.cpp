// Compiles the floats of the integer pass for every instruction set, as Kernels.cpp does with the
// other kernels.
#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "inference/kernels/UnfusedKernels.cpp"
#include "inference/kernels/VectorTargets.h"
//
#include "hwy/foreach_target.h"
//
#include "inference/kernels/LeaveVectors-inl.h"
#include "inference/kernels/RunnableKernels.h"
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

RunnableKernels<UnfusedKernels, 4> findRunnable() {
  RunnableKernels<UnfusedKernels, 4> found;
  MLNN_ADD_RUNNABLE(found, unfusedKernels);
  return found;
}

}  // namespace

float unfusedActivated(ActFn::ActFn fn, float x) {
  return HWY_STATIC_DISPATCH(scalarUnfusedActivated)(fn, x);
}

float unfusedExpOfNegative(float x) { return HWY_STATIC_DISPATCH(scalarUnfusedExpOfNegative)(x); }

std::vector<const UnfusedKernels*> runnableUnfusedKernels() { return findRunnable().all(); }

const UnfusedKernels& bestUnfusedKernels() {
  static const UnfusedKernels& best = findRunnable().best();
  return best;
}

}  // namespace mlnn
#endif
