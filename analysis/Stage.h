// Stages — the points of a forward pass at which its values can be looked at.
#pragma once

#include <Eigen/Core>
#include <cstddef>
#include <optional>
#include <string>
#include <vector>

#include "features/Export.h"
#include "inference/LayerResult.h"
#include "inference/NNFwdPassFromFile.h"
#include "model/MultiLayerNNModel.h"

namespace mlnn {

// In the order in which they are computed: "inputs"; for each layer K from 1 on
// "layer-K-affine" and "layer-K", before and after its activation; "outputs", after the softmax
// if the model has one.
MLNN_EXPORT std::vector<std::string> stageNames(std::size_t layers);

// Whether some model has a stage of that name.
MLNN_EXPORT bool isStageName(const std::string& name);

// Whether stage `a` is computed before stage `b`.
// REQUIRES: both are names of stages.
MLNN_EXPORT bool comesBefore(const std::string& a, const std::string& b);

// The values of all stages, one frame a column.
struct MLNN_EXPORT StageValues {
  Eigen::MatrixXf inputs;           // normalised and stacked, as the first layer takes them
  std::vector<LayerResult> layers;  // before and after the activation of each
  Eigen::MatrixXf outputs;          // after the softmax, if there is one

  // Returns the values of the stages in the order of stageNames.
  std::vector<const Eigen::MatrixXf*> inOrder() const;
};

// Returns how many frames to compute at once so that the values of all stages stay some
// megabytes, unless a single frame has more.
MLNN_EXPORT Eigen::Index framesAtOnce(const MultiLayerNNModel& model);

// Computes the values of all stages.
// Returns: nothing, after the forward pass's own message, when the model cannot be run.
MLNN_EXPORT std::optional<StageValues> evaluateStages(
    NNFwdPassFromFile& pass, const Eigen::Ref<const Eigen::MatrixXf>& inputs);

}  // namespace mlnn
