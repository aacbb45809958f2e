// Evaluation — runs a model over the frames of a recording, and what the outputs say.
#pragma once

#include <Eigen/Core>
#include <functional>
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

// Puts further frames into a matrix, at most as many as it is told. Returns false where there are
// none.
using NextFrames = std::function<bool(Eigen::Index most, Eigen::MatrixXf& frames)>;

// Takes outputs x frames. Returns whether it wants more.
using UseOutputs = std::function<bool(const Eigen::MatrixXf& outputs)>;

// Computes the outputs of frames that come some at a time, and holds no more than a block of them.
// The bits are those of evaluateFrames.
// Returns: false, after the forward pass's own message, when the model cannot be run.
// REQUIRES: `inputs` were made for frames as wide as these.
MLNN_EXPORT bool evaluateArriving(FwdPass& pass, const RecordingInputs& inputs,
                                  const NextFrames& next, const UseOutputs& use,
                                  const Watch& watch = {});

// Returns the row of the largest value, the first where several are; -1 when any is NaN.
MLNN_EXPORT Eigen::Index bestClass(const Eigen::Ref<const Eigen::VectorXf>& outputs);

// Returns, for each class, the sum over all frames of log(max(p, 1e-30)), in double precision.
MLNN_EXPORT Eigen::VectorXd sumOfLogs(const Eigen::MatrixXf& posteriors);

// The same sums, of frames that come some at a time: adds these to what is there of the frames
// before, or to nothing where `sums` is empty.
MLNN_EXPORT void addSumOfLogs(const Eigen::MatrixXf& posteriors, Eigen::VectorXd& sums);

// Returns the row of the largest sum, the first where several are; -1 when any is NaN.
MLNN_EXPORT Eigen::Index largestSum(const Eigen::VectorXd& sums);

// Returns the class of a whole recording: the largest of sumOfLogs; -1 when any is NaN.
MLNN_EXPORT Eigen::Index recordingClass(const Eigen::MatrixXf& posteriors);

}  // namespace mlnn
