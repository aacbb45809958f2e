// Bias correction — takes the mean error out of a model whose weights were rounded.
#pragma once

#include <Eigen/Core>

#include "features/Export.h"
#include "features/Watch.h"

class MultiLayerNNModel;

namespace mlnn {

// Moves the bias of each layer of `changed`, in a batch-norm layer beta_inf, so that over the given
// inputs what the layer computes before its activation has the mean that it has in `original`. Goes
// from the first layer to the last, each of which sees what the corrected ones before it give.
// Means are sums in double precision in the order of the inputs, and a shift is added with one
// rounding; an output whose mean is not finite, or would make its shift so, keeps its shift.
// Inputs: one vector a column. Without any, nothing changes.
// Returns: 0 done; 1 refused: the models' widths differ, or a forward pass refuses a model or the
//          inputs.
// On failure: `changed` is unchanged. On std::bad_alloc: some layers are done.
// Prints: an error line on failure.
MLNN_EXPORT int correctBiases(const MultiLayerNNModel& original, MultiLayerNNModel& changed,
                              const Eigen::Ref<const Eigen::MatrixXf>& inputs);

// The same, which a watch can stop: it is told of inputs. Where it throws, some layers are done.
MLNN_EXPORT int correctBiases(const MultiLayerNNModel& original, MultiLayerNNModel& changed,
                              const Eigen::Ref<const Eigen::MatrixXf>& inputs, const Watch& watch);

}  // namespace mlnn
