#include "tools/page/RoundingTrial.h"

#include <memory>
#include <utility>

#include "analysis/ModelCopy.h"
#include "inference/Evaluation.h"
#include "inference/IntegerFwdPass.h"
#include "inference/NNFwdPassFromFile.h"
#include "layers/Messages.h"
#include "model/RowQuantization.h"

namespace mlnn {
namespace {

using Eigen::Index;

std::vector<Index> bestClasses(const Eigen::MatrixXf& outputs) {
  std::vector<Index> best;
  for (Index f = 0; f < outputs.cols(); ++f) best.push_back(bestClass(outputs.col(f)));
  return best;
}

}  // namespace

bool RoundingTrial::add(Eigen::MatrixXf frames, const RecordingInputs& inputs,
                        std::optional<Index> known) {
  const std::optional<Eigen::MatrixXf> outputs = evaluateFrames(model_, frames, inputs);
  if (!outputs) return false;
  frames_ += static_cast<std::size_t>(frames.cols());
  if (known) ++known_;
  if (known && recordingClass(*outputs) == *known) ++right_;
  recordings_.push_back({std::move(frames), inputs, bestClasses(*outputs), known});
  return true;
}

std::optional<KeptDecisions> RoundingTrial::keptBy(FwdPass& pass) const {
  KeptDecisions kept;
  for (const Recording& recording : recordings_) {
    const auto outputs = evaluateFrames(pass, recording.frames, recording.inputs);
    if (!outputs) return {};
    const std::vector<Index> best = bestClasses(*outputs);
    for (std::size_t f = 0; f < best.size(); ++f) {
      if (best[f] == recording.best[f]) ++kept.sameBestClass;
    }
    if (recording.known && recordingClass(*outputs) == *recording.known) ++kept.rightRecordings;
  }
  return kept;
}

std::optional<RoundingTrial::Kept> RoundingTrial::measure(int bits) const {
  const CollectedMessages silence;  // the page says where it cannot be rounded
  MultiLayerNNModel rounded = copyOf(model_, {});
  RowQuantization options;
  options.bits = bits;
  if (quantizeRows(rounded, options) != 0) return {};
  const std::unique_ptr<NNFwdPassFromFile> floats(rounded.createFwdPass());
  const std::unique_ptr<IntegerFwdPass> integers = IntegerFwdPass::create(rounded);
  if (integers == nullptr) return {};
  const auto byFloats = keptBy(*floats);
  const auto byIntegers = keptBy(*integers);
  if (!byFloats || !byIntegers) return {};
  return Kept{*byFloats, *byIntegers};
}

}  // namespace mlnn
