// The activation functions and the softmax, applied in place.
#pragma once

#include <Eigen/Core>

#include "layers/ActFn.h"

namespace mlnn {

// Replaces every value x by fn(x), within 4 units in the last place. NaN stays NaN.
void applyActivation(ActFn::ActFn fn, Eigen::Ref<Eigen::VectorXf> values);

// Replaces the values by exp(x) / sum(exp(x)), computed from the differences to the largest
// so that nothing overflows. A NaN or plus infinity among them makes all of them NaN, and so
// does minus infinity where nothing else stands.
void applySoftmax(Eigen::Ref<Eigen::VectorXf> values);

}  // namespace mlnn
