// ReferencePass — the forward pass written down as plainly as possible, in double precision.
#pragma once

#include <Eigen/Core>

#include "layers/ActFn.h"
#include "model/MultiLayerNNModel.h"

namespace mlnn::test {

// One activation value, by its textbook formula.
double referenceActivation(ActFn::ActFn fn, double x);

// The outputs for each column of `inputs`: loops over frames, layers, units and inputs.
// REQUIRES: a consistent model without missing layers, and inputs that fit it.
Eigen::MatrixXd referencePass(const MultiLayerNNModel& model, const Eigen::MatrixXf& inputs);

}  // namespace mlnn::test
