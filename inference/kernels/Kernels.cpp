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
#include "inference/kernels/Activations-inl.h"
#include "inference/kernels/Kernels.h"
#include "inference/kernels/LeaveVectors-inl.h"
#include "inference/kernels/RowCodes-inl.h"
#include "inference/kernels/RunnableKernels.h"
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
                                   asKernel<rowCodesVector<ByShifts>>(),
                                   asKernel<matrixFrames>(),
                                   asKernel<activate>(),
                                   asKernel<softmax>()};
  return kKernels;
}

#if HWY_TARGET == HWY_AVX3

// The same where there are products of four 8-bit values.
const Kernels& kernelsWithDots() {
  static const Kernels kKernels = [] {
    Kernels made = kernels();
    made.rowCodesVector = asKernel<rowCodesVector<ByDots>>();
    return made;
  }();
  return kKernels;
}

#endif

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

RunnableKernels<Kernels, 5> findRunnable() {
  RunnableKernels<Kernels, 5> found;
#if HWY_TARGETS & HWY_AVX3
  if (hasAvx512Vnni()) found.add(N_AVX3::kernelsWithDots());
#endif
  MLNN_ADD_RUNNABLE(found, kernels);
  return found;
}

}  // namespace

float activated(ActFn::ActFn fn, float x) { return HWY_STATIC_DISPATCH(scalarActivated)(fn, x); }

float singleExpOfNegative(float x) { return HWY_STATIC_DISPATCH(scalarExpOfNegative)(x); }

std::vector<const Kernels*> runnableKernels() { return findRunnable().all(); }

const Kernels& bestKernels() {
  static const Kernels& best = findRunnable().best();
  return best;
}

}  // namespace mlnn
#endif
