#include "analysis/QuantizationProof.h"

#include <memory>
#include <utility>

#include "analysis/BehaviourDiff.h"
#include "analysis/ModelCopy.h"
#include "inference/BiasCorrection.h"
#include "inference/Evaluation.h"
#include "inference/IntegerFwdPass.h"
#include "inference/NNFwdPassFromFile.h"
#include "model/ModelImage.h"

namespace mlnn {
namespace {

using Eigen::Index;

constexpr char kTooLarge[] = "the model is too large for an image";

double shareOf(std::size_t part, std::size_t whole) {
  return whole == 0 ? 1 : static_cast<double>(part) / static_cast<double>(whole);
}

std::vector<Index> bestClasses(const Eigen::MatrixXf& outputs) {
  std::vector<Index> best;
  for (Index f = 0; f < outputs.cols(); ++f) best.push_back(bestClass(outputs.col(f)));
  return best;
}

// Returns the length of the model's image; nothing where it is too large for one.
std::optional<std::uint64_t> imageBytesOf(const MultiLayerNNModel& model, const Watch& watch) {
  MultiLayerNNModel copy = copyOf(model, watch);
  copy.deltasNorm.allocIfNeeded();
  const int length = imageLength(copy, watch);
  return length < 0 ? std::nullopt
                    : std::optional<std::uint64_t>(static_cast<std::uint64_t>(length));
}

}  // namespace

// --- What was found ---

double QuantizationFindings::sameBestClassShare(const DecisionLoss& decisions) const {
  return shareOf(decisions.sameBestClass, frames);
}

double QuantizationFindings::accuracy(std::size_t right) const {
  return shareOf(right, knownRecordings);
}

bool QuantizationFindings::keeps(const QuantizationLoss& loss) const {
  const auto isKept = [this](const DecisionLoss& decisions) {
    if (sameBestClassShare(decisions) < keep) return false;
    return !rightRecordings || shareOf(decisions.rightRecordings, *rightRecordings) >= keep;
  };
  return isKept(loss.floats) && isKept(loss.integers);
}

std::optional<int> QuantizationFindings::smallestWidth() const {
  std::optional<int> smallest;
  for (const QuantizationLoss& loss : losses) {
    if (keeps(loss) && (!smallest || loss.bits < *smallest)) smallest = loss.bits;
  }
  return smallest;
}

// --- How it is found ---

bool QuantizationProof::addRecording(const std::string& what, Eigen::MatrixXf frames,
                                     const RecordingInputs& inputs, std::optional<Index> knownClass,
                                     std::string& whyNot, const Watch& watch) {
  NNFwdPassFromFile pass(model_);
  const std::optional<Eigen::MatrixXf> outputs = evaluateFrames(pass, frames, inputs, watch);
  if (!outputs) {
    whyNot = kCannotBeRun;
    return false;
  }
  if (!outputs->allFinite()) {
    whyNot = what + ": the outputs are not finite, which proves nothing";
    return false;
  }
  const auto number = static_cast<std::size_t>(frames.cols());
  recordings_.push_back({std::move(frames), inputs, bestClasses(*outputs), knownClass});
  ++found_.recordings;
  found_.frames += number;
  if (!knownClass) return true;
  ++found_.knownRecordings;
  const bool isRight = recordingClass(*outputs) == *knownClass;
  found_.rightRecordings = found_.rightRecordings.value_or(0) + (isRight ? 1 : 0);
  return true;
}

bool QuantizationProof::measure(int bits, const MultiLayerNNModel& changed, std::string& whyNot,
                                const Watch& watch) {
  QuantizationLoss loss;
  loss.bits = bits;
  const std::optional<std::uint64_t> before =
      found_.losses.empty() ? imageBytesOf(model_, watch) : found_.imageBytes;
  const std::optional<std::uint64_t> now = imageBytesOf(changed, watch);
  if (!before || !now) {
    whyNot = kTooLarge;
    return false;
  }
  loss.imageBytes = *now;
  NNFwdPassFromFile floats(changed);
  const auto integers = IntegerFwdPass::create(changed, WideInputs::kNone, watch);
  if (integers == nullptr || !addStages(changed, loss, watch) ||
      !addDecisions(floats, loss.floats, watch) || !addDecisions(*integers, loss.integers, watch)) {
    whyNot = kCannotBeRun;
    return false;
  }
  found_.losses.push_back(std::move(loss));
  found_.imageBytes = *before;
  return true;
}

bool QuantizationProof::measure(const RowQuantization& options,
                                const Eigen::Ref<const Eigen::MatrixXf>& corrections,
                                std::string& whyNot, const Watch& watch) {
  const Watch between = [&watch](std::size_t) { tell(watch, 0); };
  MultiLayerNNModel changed = copyOf(model_, watch);
  if (quantizeRows(changed, options, nullptr, between) != 0 ||
      correctBiases(model_, changed, corrections, between) != 0) {
    whyNot = kCannotBeQuantized;
    return false;
  }
  return measure(options.bits, changed, whyNot, watch);
}

// All stages but the inputs.
bool QuantizationProof::addStages(const MultiLayerNNModel& changed, QuantizationLoss& loss,
                                  const Watch& watch) const {
  BehaviourDiff diff(model_, changed);
  for (const Recording& recording : recordings_) {
    if (!diff.addRecording("", recording.frames, recording.inputs, recording.inputs, watch)) {
      return false;
    }
  }
  for (std::size_t i = 1; i < diff.stages().size(); ++i) {
    const StageDifference& stage = diff.stages()[i];
    loss.stages.push_back({stage.stage, static_cast<std::size_t>(stage.valuesA),
                           stage.difference.largest(), stage.difference.mean()});
  }
  return true;
}

bool QuantizationProof::addDecisions(FwdPass& pass, DecisionLoss& loss, const Watch& watch) const {
  for (const Recording& recording : recordings_) {
    const std::optional<Eigen::MatrixXf> outputs =
        evaluateFrames(pass, recording.frames, recording.inputs, watch);
    if (!outputs) return false;
    const std::vector<Index> best = bestClasses(*outputs);
    for (std::size_t f = 0; f < best.size(); ++f) {
      if (best[f] == recording.best[f]) ++loss.sameBestClass;
    }
    if (recording.knownClass && recordingClass(*outputs) == *recording.knownClass) {
      ++loss.rightRecordings;
    }
  }
  return true;
}

}  // namespace mlnn
