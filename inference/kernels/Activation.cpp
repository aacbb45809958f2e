#include "inference/kernels/Activation.h"

#include "inference/kernels/Kernels.h"

void mlnn::applyActivation(ActFn::ActFn fn, Eigen::Ref<Eigen::VectorXf> values) {
  bestKernels().activate(fn, values.data(), static_cast<std::size_t>(values.size()));
}
