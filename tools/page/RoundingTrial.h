// RoundingTrial — what a network still decides when its weights are rounded by rows, for a page.
#pragma once

#include <Eigen/Core>
#include <cstddef>
#include <optional>
#include <vector>

#include "inference/FwdPass.h"
#include "inference/RecordingInputs.h"
#include "model/MultiLayerNNModel.h"

namespace mlnn {

// How much of what the network decides stays as it is.
struct KeptDecisions {
  std::size_t sameBestClass = 0;    // frames
  std::size_t rightRecordings = 0;  // of those whose class is known
};

class RoundingTrial {
 public:
  // REQUIRES: the model outlives this object and does not change.
  explicit RoundingTrial(MultiLayerNNModel& model) : model_(model) {}

  // Takes in a recording, and runs the model as it is over it. `known` is its class.
  // Returns: whether the model can be run; if not, after the forward pass's own message, and
  // nothing is taken in.
  // REQUIRES: the inputs were made for frames of the model as wide as these.
  bool add(Eigen::MatrixXf frames, const RecordingInputs& inputs,
           std::optional<Eigen::Index> known);

  // Rounds a copy of the model, and runs it over all recordings: in floats, and in integers
  // (inference/IntegerFwdPass.h).
  // Returns: nothing, without a message, where it cannot be rounded.
  // REQUIRES: bits is 2 to 8.
  struct Kept {
    KeptDecisions floats;
    KeptDecisions integers;
  };
  std::optional<Kept> measure(int bits) const;

  std::size_t frames() const { return frames_; }
  std::size_t knownRecordings() const { return known_; }

  // Recordings that the model as it is decides rightly.
  std::size_t rightRecordings() const { return right_; }

  // Whether there is a class to decide for: with one output there is none.
  bool decides() const { return model_.numOutputs() > 1; }

 private:
  struct Recording {
    Eigen::MatrixXf frames;
    RecordingInputs inputs;
    std::vector<Eigen::Index> best;  // class of each frame
    std::optional<Eigen::Index> known;
  };

  std::optional<KeptDecisions> keptBy(FwdPass& pass) const;

  MultiLayerNNModel& model_;
  std::vector<Recording> recordings_;
  std::size_t frames_ = 0;
  std::size_t known_ = 0;
  std::size_t right_ = 0;
};

}  // namespace mlnn
