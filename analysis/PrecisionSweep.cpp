#include "analysis/PrecisionSweep.h"

#include <algorithm>
#include <utility>

#include "analysis/Difference.h"
#include "analysis/ModelCopy.h"
#include "inference/Evaluation.h"
#include "inference/NNFwdPassFromFile.h"
#include "layers/FilledColumns.h"
#include "layers/Messages.h"

namespace mlnn {
namespace {

using Eigen::Index;

constexpr Index kColumnsBetweenCalls = 64;

MultiLayerNNModel reduced(const MultiLayerNNModel& model, int bits, const Watch& watch) {
  MultiLayerNNModel copy = copyOf(model, watch);
  const CollectedMessages silence;  // the range is the same for every number of bits
  copy.retainPrecisionBits(bits);
  return copy;
}

// The errors of single parameters.
class Errors {
 public:
  void add(const Eigen::Ref<const Eigen::MatrixXf>& exact,
           const Eigen::Ref<const Eigen::MatrixXf>& found, const Watch& watch) {
    for (Index c = 0; c < filledColumns(exact); ++c) {
      if (c % kColumnsBetweenCalls == 0) tell(watch, 0);
      for (Index r = 0; r < exact.rows(); ++r) {
        const double error = absoluteDifference(exact(r, c), found(r, c));
        largest_ = std::max(largest_, error);
        sum_ += error;
        ++count_;
      }
    }
  }

  double largest() const { return largest_; }
  double mean() const { return count_ == 0 ? 0 : sum_ / static_cast<double>(count_); }

 private:
  double largest_ = 0;
  double sum_ = 0;
  std::size_t count_ = 0;
};

// A batch-norm layer does not compute with its bias, and its own vectors are not reduced.
Errors errorsOf(const MultiLayerNNModel& exact, const MultiLayerNNModel& found,
                const Watch& watch) {
  Errors errors;
  for (std::size_t i = 0; i < exact.layers.size(); ++i) {
    const NNLayer& layer = *exact.layers[i];
    errors.add(layer.weights, found.layers[i]->weights, watch);
    if (!layer.isBatchNorm) errors.add(layer.bias, found.layers[i]->bias, watch);
  }
  return errors;
}

void addOutputs(const Eigen::MatrixXf& exact, const Eigen::MatrixXf& found, PrecisionLoss& loss) {
  for (Index f = 0; f < exact.cols(); ++f) {
    for (Index c = 0; c < exact.rows(); ++c) {
      loss.largestOutputDifference =
          std::max(loss.largestOutputDifference, absoluteDifference(exact(c, f), found(c, f)));
    }
    if (bestClass(exact.col(f)) == bestClass(found.col(f))) ++loss.sameBestClass;
  }
}

}  // namespace

bool PrecisionSweep::addRecording(Eigen::MatrixXf frames, const RecordingInputs& inputs,
                                  std::optional<Index> knownClass, const Watch& watch) {
  NNFwdPassFromFile pass(model_);
  std::optional<Eigen::MatrixXf> outputs = evaluateFrames(pass, frames, inputs, watch);
  if (!outputs) return false;
  frames_ += static_cast<std::size_t>(frames.cols());
  if (knownClass && recordingClass(*outputs) == *knownClass) ++rightRecordings_;
  recordings_.push_back({std::move(frames), inputs, *std::move(outputs), knownClass});
  return true;
}

PrecisionLoss PrecisionSweep::measure(int bits, const Watch& watch) const {
  MultiLayerNNModel model = reduced(model_, bits, watch);
  tell(watch, 0);
  PrecisionLoss loss;
  loss.bits = bits;
  const Errors errors = errorsOf(model_, model, watch);
  loss.largestWeightError = errors.largest();
  loss.meanWeightError = errors.mean();
  for (const Recording& recording : recordings_) {
    // A reduced model has the shape of the one that was run over the recording.
    const Eigen::MatrixXf outputs =
        evaluateFrames(model, recording.frames, recording.inputs, watch).value();
    addOutputs(recording.outputs, outputs, loss);
    if (recording.knownClass && recordingClass(outputs) == *recording.knownClass) {
      ++loss.rightRecordings;
    }
  }
  return loss;
}

}  // namespace mlnn
