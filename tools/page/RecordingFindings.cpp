#include "tools/page/RecordingFindings.h"

#include <algorithm>
#include <memory>
#include <numeric>

#include "analysis/Stage.h"
#include "model/ClassLabels.h"

namespace mlnn {
namespace {

using Eigen::Index;

constexpr Index kMostRows = 32;  // of cells in a picture
constexpr Index kMostColumns = 256;

std::vector<std::size_t> numbersUpTo(std::size_t count) {
  std::vector<std::size_t> numbers(count);
  std::iota(numbers.begin(), numbers.end(), std::size_t{0});
  return numbers;
}

}  // namespace

RecordingFindings::RecordingFindings(const MultiLayerNNModel& model)
    : model_(model), labels_(classLabels(model)), activity_(model) {}

bool RecordingFindings::add(const std::string& name, const Eigen::MatrixXf& frames,
                            const RecordingInputs& inputs, std::optional<Index> known) {
  const std::unique_ptr<NNFwdPassFromFile> pass(model_.createFwdPass());
  Eigen::MatrixXf outputs(model_.numOutputs(), frames.cols());
  RecordingInputs::Blocks blocks(inputs, frames);
  Index done = 0;
  while (const auto block = blocks.next(framesAtOnce(model_))) {
    const std::optional<StageValues> stages = evaluateStages(*pass, *block);
    if (!stages) return false;
    outputs.middleCols(done, block->cols()) = stages->outputs;
    activity_.add(stages->layers);
    done += block->cols();
  }
  RecordingFinding finding;
  finding.name = name;
  finding.frames = frames.cols();
  finding.known = known;
  if (arePosteriors()) finding.decision = decisionOf(outputs);
  if (known) confusion_.add(*known, finding.decision.best);
  finding.outputs = cellMapOf(outputs, kMostRows, kMostColumns);
  pictures_.push_back(recordings_.size());
  recordings_.push_back(std::move(finding));
  if (pictures_.size() > kMostPictures) leaveOutPicture();
  return true;
}

bool RecordingFindings::isSurer(const RecordingFinding& a, const RecordingFinding& b) const {
  if (a.isWrong() != b.isWrong()) return b.isWrong();
  return a.decision.margin > b.decision.margin;
}

// The surest one goes; of several that are as sure, the last.
void RecordingFindings::leaveOutPicture() {
  auto surest = pictures_.begin();
  for (auto at = pictures_.begin(); at != pictures_.end(); ++at) {
    if (!isSurer(recordings_[*surest], recordings_[*at])) surest = at;
  }
  recordings_[*surest].outputs.reset();
  pictures_.erase(surest);
}

std::vector<std::size_t> RecordingFindings::bySureness() const {
  std::vector<std::size_t> numbers = numbersUpTo(recordings_.size());
  std::stable_sort(numbers.begin(), numbers.end(), [this](std::size_t a, std::size_t b) {
    return isSurer(recordings_[b], recordings_[a]);
  });
  return numbers;
}

std::vector<std::size_t> RecordingFindings::bySlowness() const {
  std::vector<std::size_t> numbers = numbersUpTo(recordings_.size());
  std::stable_sort(numbers.begin(), numbers.end(), [this](std::size_t a, std::size_t b) {
    return recordings_[a].decision.settledAt > recordings_[b].decision.settledAt;
  });
  return numbers;
}

}  // namespace mlnn
