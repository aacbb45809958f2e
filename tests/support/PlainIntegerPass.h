// PlainIntegerPass — the integer pass written down as plainly as possible, one value at a time,
// from the model's own weights: what every processor must give to the bit.
#pragma once

#include <Eigen/Core>

#include "inference/IntegerFwdPass.h"
#include "layers/NNLayer.h"

class MultiLayerNNModel;

namespace mlnn::test {

// Whether the layer's weights are whole numbers of -127 to 127 times a scale for each output.
bool hasRowCodes(const NNLayer& layer);

// The results of the layer for one frame; of its inputs, words or bytes are made.
Eigen::VectorXf plainIntegerLayer(const NNLayer& layer, const Eigen::VectorXf& x, bool words);

// The outputs of the model, one frame a column.
Eigen::MatrixXf plainIntegerPass(const MultiLayerNNModel& model, const Eigen::MatrixXf& inputs,
                                 WideInputs wideInputs = WideInputs::kNone);

// Rounds each weight to the nearest of 127 (or as many as `most` says) points to either side of 0,
// by a scale for each row which takes few enough bits that all products are floats.
void roundByRows(NNLayer& layer, int most = 127);

}  // namespace mlnn::test
