// How commands run models over recordings.
#pragma once

#include <Eigen/Core>
#include <string>
#include <vector>

#include "analysis/BehaviourDiff.h"
#include "inference/RecordingInputs.h"

namespace mlnn {

// Decides what the frames of a file are (inference/RecordingInputs.h). Warns where the feature
// description asks for what is not done.
// Throws: Failure that names both widths when neither fits.
RecordingInputs inputsFor(const InputSide& network, Eigen::Index width, bool stacked,
                          const std::string& fileName);

// The same; puts the warning into `warning`, "" for none, instead of printing it.
RecordingInputs inputsFor(const InputSide& network, Eigen::Index width, bool stacked,
                          const std::string& fileName, std::string& warning);

// Runs both models over the frames of files, each on the input vectors that its own description
// makes of them. Shows its progress.
// Throws: Failure when a file cannot be read or a model cannot be run over it.
BehaviourDiff compareBehaviour(MultiLayerNNModel& a, MultiLayerNNModel& b,
                               const std::vector<std::string>& fileNames, bool stacked);

}  // namespace mlnn
