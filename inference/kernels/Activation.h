// The activation functions, applied in place.
#pragma once

#include <Eigen/Core>

#include "layers/ActFn.h"

namespace mlnn {

// Replaces every value x by fn(x), within 4 units in the last place. NaN stays NaN.
void applyActivation(ActFn::ActFn fn, Eigen::Ref<Eigen::VectorXf> values);

}  // namespace mlnn
