// Evaluation — runs a model over the frames of a file, and what the outputs say.
#pragma once

#include <Eigen/Core>

#include "inference/FwdPass.h"
#include "inference/RecordingInputs.h"
#include "model/ClassLabels.h"
#include "model/MultiLayerNNModel.h"
#include "tools/reports/Progress.h"

namespace mlnn {

// Computes the model's outputs for every frame.
// Returns: outputs x frames. `progress` is told of each block of frames.
// Throws: Failure, after the forward pass's own message, when the model cannot be run.
Eigen::MatrixXf evaluateFrames(MultiLayerNNModel& model, const Eigen::MatrixXf& frames,
                               const Inputs& inputs, Progress& progress);

// The same by a forward pass over the model that the inputs are for.
Eigen::MatrixXf evaluateFrames(FwdPass& pass, const Eigen::MatrixXf& frames, const Inputs& inputs,
                               Progress& progress);

// Returns the row of the largest value, the first where several are; -1 when any is NaN.
Eigen::Index bestClass(const Eigen::Ref<const Eigen::VectorXf>& outputs);

// Returns, for each class, the sum over all frames of log(max(p, 1e-30)), in double precision.
Eigen::VectorXd sumOfLogs(const Eigen::MatrixXf& posteriors);

// Returns the class of a whole recording: the largest of sumOfLogs; -1 when any is NaN.
Eigen::Index recordingClass(const Eigen::MatrixXf& posteriors);

}  // namespace mlnn
