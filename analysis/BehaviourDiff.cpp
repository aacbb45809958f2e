#include "analysis/BehaviourDiff.h"

#include <algorithm>
#include <memory>

#include "inference/Evaluation.h"
#include "inference/NNFwdPassFromFile.h"
#include "text/Escape.h"
#include "tools/files/Frames.h"
#include "tools/files/InputFile.h"

namespace mlnn {
namespace {

// The values of the stages that both models are compared at, out of those of one model.
std::vector<const Eigen::MatrixXf*> commonStages(const StageValues& values, std::size_t stages) {
  std::vector<const Eigen::MatrixXf*> common = values.inOrder();
  common.erase(common.begin() + static_cast<std::ptrdiff_t>(stages) - 1, common.end() - 1);
  return common;
}

}  // namespace

bool StageDifference::isBeyond(double tolerance) const {
  return valuesA != valuesB || difference.largest() > tolerance;
}

BehaviourDiff::BehaviourDiff(MultiLayerNNModel& a, MultiLayerNNModel& b) : a_(a), b_(b) {
  for (const std::string& name : stageNames(std::min(a.layers.size(), b.layers.size()))) {
    stages_.push_back({name, 0, 0, {}});
  }
}

void BehaviourDiff::addRecordings(const std::vector<std::string>& names, bool stacked) {
  Progress progress(names.size());
  for (const std::string& name : names) {
    const Eigen::MatrixXf frames = readRecording(name);
    progress.beginPart(escaped(name), static_cast<std::size_t>(frames.cols()));
    addRecording(name, frames, stacked, progress);
  }
}

void BehaviourDiff::addRecording(const std::string& name, const Eigen::MatrixXf& frames,
                                 bool stacked, Progress& progress) {
  const Inputs inputsA = Inputs::forFrames(a_, frames.rows(), stacked, inputName(name));
  const Inputs inputsB = Inputs::forFrames(b_, frames.rows(), stacked, inputName(name));
  const std::unique_ptr<NNFwdPassFromFile> passA(a_.createFwdPass());
  const std::unique_ptr<NNFwdPassFromFile> passB(b_.createFwdPass());
  Inputs::Blocks blocksA(inputsA, frames);
  Inputs::Blocks blocksB(inputsB, frames);
  const Eigen::Index length =
      std::min({blocksA.maxLength(), blocksB.maxLength(), framesAtOnce(a_), framesAtOnce(b_)});
  Eigen::Index first = 0;
  while (first < frames.cols()) {
    const auto a = blocksA.next(length);
    const auto b = blocksB.next(length);
    blocks_.push_back({name, first});
    addBlock(evaluateStages(*passA, *a), evaluateStages(*passB, *b));
    first += a->cols();
    progress.advance(static_cast<std::size_t>(a->cols()));
  }
  ++recordings_;
  frames_ += static_cast<std::size_t>(frames.cols());
}

void BehaviourDiff::addBlock(const StageValues& a, const StageValues& b) {
  const std::vector<const Eigen::MatrixXf*> valuesA = commonStages(a, stages_.size());
  const std::vector<const Eigen::MatrixXf*> valuesB = commonStages(b, stages_.size());
  for (std::size_t i = 0; i < stages_.size(); ++i) {
    StageDifference& stage = stages_[i];
    stage.valuesA = valuesA[i]->rows();
    stage.valuesB = valuesB[i]->rows();
    if (stage.valuesA == stage.valuesB) stage.difference.add(*valuesA[i], *valuesB[i]);
  }
  for (Eigen::Index f = 0; f < a.outputs.cols(); ++f) {
    if (bestClass(a.outputs.col(f)) == bestClass(b.outputs.col(f))) ++sameDecisions_;
  }
}

const StageDifference* BehaviourDiff::firstBeyond(double tolerance) const {
  const auto found =
      std::find_if(stages_.begin(), stages_.end(),
                   [tolerance](const StageDifference& stage) { return stage.isBeyond(tolerance); });
  return found == stages_.end() ? nullptr : &*found;
}

FramePlace BehaviourDiff::placeOfLargest(const StageDifference& stage) const {
  const Difference::Place place = stage.difference.placeOfLargest();
  const Block& block = blocks_[place.pair];
  return {block.recording, block.firstFrame + place.col, place.row};
}

}  // namespace mlnn
