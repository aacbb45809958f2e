// Traces — folders that hold what every stage of a forward pass computed (analysis/Stage.h), each
// stage a .npy file of frames x values under its name.
#pragma once

#include <Eigen/Core>
#include <optional>
#include <string>
#include <vector>

#include "inference/RecordingInputs.h"
#include "model/MultiLayerNNModel.h"
#include "tools/files/OwnInputs.h"
#include "tools/files/RecordingFiles.h"
#include "tools/reports/Progress.h"

namespace mlnn {

// Returns the folders for the traces of some recordings, in their order: `folder` itself for a
// single one, else folders inside it called like the recordings without their endings.
// Throws: UsageError when a recording has no name, or two have the same one.
std::vector<std::string> traceFolders(const std::string& folder,
                                      const std::vector<RecordingFile>& recordings);

// Makes sure that no file of a trace in the folder, which need not exist, is an input.
// Throws: UsageError when one is, Failure when the folder cannot be read.
void refuseTraceOf(const OwnInputs& inputs, const std::string& folder);

// Runs the model over the frames of a recording, and writes what each stage computed into the
// folder, which is made if it is not there. `progress` is told of frames.
// Returns: the outputs, the last of the stages.
// Throws: Failure; also when the folder holds the trace of a deeper model, with which the files
// would be mixed up.
// On failure: each file is new or as it was, and whole.
Eigen::MatrixXf writeTrace(MultiLayerNNModel& model, const RecordingInputs& inputs,
                           const Eigen::MatrixXf& frames, const std::string& folder,
                           Progress& progress);

// Returns the stages that the folder holds, in the order in which they are computed. Other files
// are passed over.
// Throws: Failure when there is no such folder.
std::vector<std::string> stagesIn(const std::string& folder);

// The path of a stage's file.
std::string stagePath(const std::string& folder, const std::string& stage);

}  // namespace mlnn
