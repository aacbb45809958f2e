#include "tools/commands/Recordings.h"

#include <utility>

#include "inference/Evaluation.h"
#include "text/Escape.h"
#include "tools/Failure.h"
#include "tools/files/Frames.h"
#include "tools/files/InputFile.h"
#include "tools/reports/Progress.h"

namespace mlnn {

RecordingInputs inputsFor(const InputSide& network, Eigen::Index width, bool stacked,
                          const std::string& fileName) {
  std::string warning;
  RecordingInputs inputs = inputsFor(network, width, stacked, fileName, warning);
  if (!warning.empty()) printWarning(warning);
  return inputs;
}

RecordingInputs inputsFor(const InputSide& network, Eigen::Index width, bool stacked,
                          const std::string& fileName, std::string& warning) {
  const std::string what = inputName(fileName);
  std::string whyNot;
  auto inputs = RecordingInputs::forFrames(network, width, stacked, what, whyNot);
  if (!inputs) throw Failure(whyNot);
  warning = inputs->leavesOutLineKernels()
                ? "the feature description asks for line kernels, which are not applied to " + what
                : "";
  return *std::move(inputs);
}

BehaviourDiff compareBehaviour(MultiLayerNNModel& a, MultiLayerNNModel& b,
                               const std::vector<std::string>& fileNames, bool stacked) {
  BehaviourDiff diff(a, b);
  Progress progress(fileNames.size());
  for (const std::string& name : fileNames) {
    const Eigen::MatrixXf frames = readRecording(name);
    progress.beginPart(escaped(name), static_cast<std::size_t>(frames.cols()));
    const RecordingInputs inputsA = inputsFor(InputSide::of(a), frames.rows(), stacked, name);
    const RecordingInputs inputsB = inputsFor(InputSide::of(b), frames.rows(), stacked, name);
    if (!diff.addRecording(name, frames, inputsA, inputsB, progress.watch())) {
      throw Failure(kCannotBeRun);
    }
  }
  return diff;
}

}  // namespace mlnn
