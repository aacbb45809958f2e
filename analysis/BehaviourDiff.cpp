#include "analysis/BehaviourDiff.h"

#include <algorithm>
#include <memory>

#include "inference/Evaluation.h"
#include "inference/NNFwdPassFromFile.h"
#include "inference/Pace.h"

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

BehaviourDiff::BehaviourDiff(const MultiLayerNNModel& a, const MultiLayerNNModel& b)
    : a_(&a), b_(&b) {
  for (const std::string& name : stageNames(std::min(a.layers.size(), b.layers.size()))) {
    stages_.push_back({name, 0, 0, {}});
  }
}

bool BehaviourDiff::addRecording(const std::string& name,
                                 const Eigen::Ref<const Eigen::MatrixXf>& frames,
                                 const RecordingInputs& inputsA, const RecordingInputs& inputsB,
                                 const Watch& watch) {
  const std::unique_ptr<NNFwdPassFromFile> passA(a_->createFwdPass());
  const std::unique_ptr<NNFwdPassFromFile> passB(b_->createFwdPass());
  RecordingInputs::Blocks blocksA(inputsA, frames);
  RecordingInputs::Blocks blocksB(inputsB, frames);
  Pace pace(watch, std::min({blocksA.maxLength(), blocksB.maxLength(), framesAtOnce(*a_),
                             framesAtOnce(*b_)}));
  Eigen::Index first = 0;
  while (first < frames.cols()) {
    const auto a = blocksA.next(pace.frames());
    const auto b = blocksB.next(pace.frames());
    bool isDone = false;
    pace.run([&] {
      const std::optional<StageValues> valuesA = evaluateStages(*passA, *a);
      tell(watch, 0);
      const std::optional<StageValues> valuesB =
          valuesA ? evaluateStages(*passB, *b) : std::nullopt;
      isDone = valuesB.has_value();
      if (!isDone) return;
      blocks_.push_back({name, first});
      addBlock(*valuesA, *valuesB);
    });
    if (!isDone) return false;
    first += a->cols();
    tell(watch, static_cast<std::size_t>(a->cols()));
  }
  ++recordings_;
  frames_ += static_cast<std::size_t>(frames.cols());
  return true;
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
  if (blocks_.empty()) return {};
  const Difference::Place place = stage.difference.placeOfLargest();
  const Block& block = blocks_[place.pair];
  return {block.recording, block.firstFrame + place.col, place.row};
}

}  // namespace mlnn
