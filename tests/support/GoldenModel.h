// The model and the inputs whose outputs are written down for all platforms. All weights follow
// from whole numbers, so that every platform makes the same model.
#pragma once

#include <Eigen/Core>

#include "layers/ActFn.h"
#include "model/MultiLayerNNModel.h"

namespace mlnn::test {

// Frames of goldenInputs and finiteInputs.
constexpr Eigen::Index kGoldenFrames = 5;

// Inputs of goldenModel, and outputs of its widest layer.
constexpr int kGoldenInputs = 70;
constexpr int kGoldenWidest = 37;

// Four layers of 70 to 37 to 35 to 21 to 19 units, the second one batch norm, with weights for
// integers of 8, 4, no and 8 bits; all activations but the last layer's are this one. Ends in a
// softmax.
MultiLayerNNModel goldenModel(ActFn::ActFn actFn);

// Multiples of 1/64 between -100/64 and 100/64: `width` x kGoldenFrames.
Eigen::MatrixXf finiteInputs(Eigen::Index width);

// The same for goldenModel, but for a frame of denormals, one with infinity and one of large
// values.
Eigen::MatrixXf goldenInputs();

}  // namespace mlnn::test
