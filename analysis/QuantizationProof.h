// QuantizationProof — what a model loses when its weights are quantised by rows
// (model/RowQuantization.h), and how few bits keep enough of it.
#pragma once

#include <Eigen/Core>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "features/Export.h"
#include "features/Watch.h"
#include "inference/FwdPass.h"
#include "inference/RecordingInputs.h"
#include "model/MultiLayerNNModel.h"
#include "model/RowQuantization.h"

namespace mlnn {

// How far the values of one stage (analysis/Stage.h) are from those of the model as it is.
struct StageLoss {
  std::string stage;
  std::size_t values = 0;  // of a frame
  double largest = 0;
  double mean = 0;
};

// What decisions a pass over the quantised model makes.
struct DecisionLoss {
  std::size_t sameBestClass = 0;    // frames
  std::size_t rightRecordings = 0;  // of those whose class is known
};

// What was found with one number of bits.
struct QuantizationLoss {
  int bits = 0;
  std::vector<StageLoss> stages;  // each layer, before and after its activation, and the outputs
  DecisionLoss floats;
  DecisionLoss integers;  // by the integer pass
  std::uint64_t imageBytes = 0;
};

struct MLNN_EXPORT QuantizationFindings {
  std::size_t recordings = 0;
  std::size_t knownRecordings = 0;  // those whose class is known
  std::size_t frames = 0;
  double keep = 0;                             // the share of decisions that is asked for
  std::optional<std::size_t> rightRecordings;  // of the model as it is, where classes are known
  std::uint64_t imageBytes = 0;                // of the model as it is; 0 while there is no loss
  std::vector<QuantizationLoss> losses;        // in the order in which they were measured

  // The share of frames whose best class is still the same; 1 without frames.
  double sameBestClassShare(const DecisionLoss& decisions) const;

  // So many right recordings as a share of those whose class is known; 1 without any.
  double accuracy(std::size_t right) const;

  // Whether such a model keeps the share that is asked for of the best classes and, where classes
  // are known, of the recordings that were right; by both passes.
  bool keeps(const QuantizationLoss& loss) const;

  // Returns the fewest bits that keep it, which is the width to recommend.
  std::optional<int> smallestWidth() const;
};

// Runs quantised models beside the model as it is. One object serves one thread at a time.
class MLNN_EXPORT QuantizationProof {
 public:
  // `keep` is the share of decisions that is asked for, from 0 to 1.
  // REQUIRES: the model outlives this object and does not change; no layer is missing.
  QuantizationProof(const MultiLayerNNModel& model, double keep) : model_(model) {
    found_.keep = keep;
  }

  // Takes in a recording, and runs the model as it is over it. Frames are values x frames, and
  // `what` names them in messages; `knownClass` counts from 0. `watch` is told of frames.
  // Returns: false, with `whyNot` set, where outputs are not finite, since nothing could be told
  // from them, and, after the forward pass's own message, where the model cannot be run.
  // On failure, and when the watch throws: nothing is taken in.
  // REQUIRES: the inputs were made for frames of the model as wide as these.
  bool addRecording(const std::string& what, Eigen::MatrixXf frames, const RecordingInputs& inputs,
                    std::optional<Eigen::Index> knownClass, std::string& whyNot,
                    const Watch& watch = {});

  // Runs a quantised model, in floats and in integers, over all recordings; found() then has its
  // loss as the last one. `bits` is what the loss says of itself. `watch` is told of
  // kStepsOfFrame steps for each frame.
  // Returns: false, with `whyNot` set, where one of the models is too large for an image, and,
  // after the forward pass's own message, where `changed` cannot be run.
  // On failure, and when the watch throws: found() has the losses from before.
  // REQUIRES: `changed` takes the same frames as the model; no layer is missing.
  bool measure(int bits, const MultiLayerNNModel& changed, std::string& whyNot,
               const Watch& watch = {});

  // The same with a copy of the model that it quantises itself. Over `corrections`, input vectors
  // in columns, the mean error is taken out of its biases (inference/BiasCorrection.h); no columns
  // leave them.
  // Returns: false, with `whyNot` set, for the same reasons, and, after an error line, where the
  // model cannot be quantised as `options` say, or is not as wide as `corrections`.
  // On failure, and when the watch throws: found() has the losses from before.
  bool measure(const RowQuantization& options, const Eigen::Ref<const Eigen::MatrixXf>& corrections,
               std::string& whyNot, const Watch& watch = {});

  // How many steps of a frame `measure` tells its watch of.
  static constexpr std::size_t kStepsOfFrame = 3;

  const QuantizationFindings& found() const { return found_; }

 private:
  struct Recording {
    Eigen::MatrixXf frames;
    RecordingInputs inputs;
    std::vector<Eigen::Index> best;  // class of each frame, by the model as it is
    std::optional<Eigen::Index> knownClass;
  };

  bool addStages(const MultiLayerNNModel& changed, QuantizationLoss& loss,
                 const Watch& watch) const;
  bool addDecisions(FwdPass& pass, DecisionLoss& loss, const Watch& watch) const;

  const MultiLayerNNModel& model_;
  std::vector<Recording> recordings_;
  QuantizationFindings found_;
};

// Why a model is not quantised: what every caller says after quantizeRows or correctBiases has told
// the reason.
inline constexpr char kCannotBeQuantized[] = "the model cannot be quantised";

}  // namespace mlnn
