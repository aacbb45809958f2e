// Compiles the products of codes of a table for every instruction set, as Kernels.cpp does with the
// other kernels.
#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "inference/kernels/TableKernels.cpp"
#include "inference/kernels/VectorTargets.h"
//
#include "hwy/foreach_target.h"
//
#include "inference/kernels/LeaveVectors-inl.h"
#include "inference/kernels/RunnableKernels.h"
#include "inference/kernels/TableCodes-inl.h"
#include "inference/kernels/TableKernels.h"

HWY_BEFORE_NAMESPACE();
namespace mlnn {
namespace HWY_NAMESPACE {

const TableKernels& tableKernels() {
  static constexpr TableKernels kKernels = {kFuses, kLanes, asKernel<multiplyTableCodes>()};
  return kKernels;
}

}  // namespace HWY_NAMESPACE
}  // namespace mlnn
HWY_AFTER_NAMESPACE();

#if HWY_ONCE
namespace mlnn {

namespace {

RunnableKernels<TableKernels, 4> findRunnable() {
  RunnableKernels<TableKernels, 4> found;
  MLNN_ADD_RUNNABLE(found, tableKernels);
  return found;
}

}  // namespace

std::vector<const TableKernels*> runnableTableKernels() { return findRunnable().all(); }

const TableKernels& bestTableKernels() {
  static const TableKernels& best = findRunnable().best();
  return best;
}

}  // namespace mlnn
#endif
