// PrecisionSweep — what a model loses when its parameters keep fewer bits.
#pragma once

#include <Eigen/Core>
#include <cstddef>
#include <optional>
#include <vector>

#include "features/Export.h"
#include "features/Watch.h"
#include "inference/RecordingInputs.h"
#include "model/MultiLayerNNModel.h"

namespace mlnn {

// What was found with one number of bits, beside the model as it is.
struct PrecisionLoss {
  int bits = 0;                        // what was asked for
  double largestWeightError = 0;       // of the weights and biases that the model computes with
  double meanWeightError = 0;          // of the same
  double largestOutputDifference = 0;  // over all frames and outputs
  std::size_t sameBestClass = 0;       // frames
  std::size_t rightRecordings = 0;     // of those whose class is known
};

class MLNN_EXPORT PrecisionSweep {
 public:
  // REQUIRES: the model outlives this object and does not change.
  explicit PrecisionSweep(const MultiLayerNNModel& model) : model_(model) {}

  // Takes in a recording, and runs the model as it is over it. `knownClass` counts from 0.
  // `watch` is told of frames.
  // Returns: whether the model can be run; if not, after the forward pass's own message, and
  // nothing is taken in.
  // REQUIRES: the inputs were made for frames of the model as wide as these.
  bool addRecording(Eigen::MatrixXf frames, const RecordingInputs& inputs,
                    std::optional<Eigen::Index> knownClass, const Watch& watch = {});

  // Reduces a copy of the model and runs it over all recordings. `watch` is told of frames.
  // REQUIRES: bits is 0 to 31.
  PrecisionLoss measure(int bits, const Watch& watch = {}) const;

  std::size_t recordings() const { return recordings_.size(); }  // taken in
  std::size_t frames() const { return frames_; }                 // of all of them

  // Recordings that the model as it is decides rightly.
  std::size_t rightRecordings() const { return rightRecordings_; }

 private:
  struct Recording {
    Eigen::MatrixXf frames;
    RecordingInputs inputs;
    Eigen::MatrixXf outputs;  // of the model as it is
    std::optional<Eigen::Index> knownClass;
  };

  const MultiLayerNNModel& model_;
  std::vector<Recording> recordings_;
  std::size_t frames_ = 0;
  std::size_t rightRecordings_ = 0;
};

}  // namespace mlnn
