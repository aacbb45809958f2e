// Evaluation — runs a model over the frames of a recording, and what the outputs say.
#pragma once

#include <Eigen/Core>
#include <optional>

#include "features/Export.h"
#include "features/Watch.h"
#include "inference/FwdPass.h"
#include "inference/RecordingInputs.h"
#include "model/ClassLabels.h"
#include "model/MultiLayerNNModel.h"

namespace mlnn {

// Why a model is not run: what every caller says after the forward pass has told the reason.
inline constexpr char kCannotBeRun[] = "the model cannot be run";

// Computes the model's outputs for every frame. `watch` is told of frames.
// Returns: outputs x frames; nothing, after the forward pass's own message, when the model cannot
// be run. REQUIRES: `inputs` were made for frames as wide as these.
MLNN_EXPORT std::optional<Eigen::MatrixXf> evaluateFrames(
    MultiLayerNNModel& model, const Eigen::Ref<const Eigen::MatrixXf>& frames,
    const RecordingInputs& inputs, const Watch& watch = {});

// The same by a forward pass over the model that the inputs are for.
MLNN_EXPORT std::optional<Eigen::MatrixXf> evaluateFrames(
    FwdPass& pass, const Eigen::Ref<const Eigen::MatrixXf>& frames, const RecordingInputs& inputs,
    const Watch& watch = {});

// Returns the row of the largest value, the first where several are; -1 when any is NaN.
MLNN_EXPORT Eigen::Index bestClass(const Eigen::Ref<const Eigen::VectorXf>& outputs);

// Returns, for each class, the sum over all frames of log(max(p, 1e-30)), in double precision.
MLNN_EXPORT Eigen::VectorXd sumOfLogs(const Eigen::MatrixXf& posteriors);

// Returns the class of a whole recording: the largest of sumOfLogs; -1 when any is NaN.
MLNN_EXPORT Eigen::Index recordingClass(const Eigen::MatrixXf& posteriors);

}  // namespace mlnn
