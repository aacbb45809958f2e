// PrecisionSweep — what a model loses when its parameters keep fewer bits.
#pragma once

#include <Eigen/Core>
#include <cstddef>
#include <optional>
#include <string>
#include <vector>

#include "inference/RecordingInputs.h"
#include "model/MultiLayerNNModel.h"
#include "tools/reports/Progress.h"

namespace mlnn {

// What was found with one number of bits, beside the model as it is.
struct PrecisionLoss {
  int bits = 0;
  double largestWeightError = 0;  // of the weights and biases that the model computes with
  double meanWeightError = 0;
  double largestOutputDifference = 0;  // over all frames and outputs
  std::size_t sameBestClass = 0;       // frames
  std::size_t rightRecordings = 0;     // of those whose class is known
};

class PrecisionSweep {
 public:
  // REQUIRES: the model outlives this object and does not change.
  explicit PrecisionSweep(MultiLayerNNModel& model) : model_(model) {}

  // Takes in a recording, and runs the model as it is over it. `knownClass` counts from 0,
  // `progress` is told of frames.
  // Throws: Failure when the model cannot be run over it.
  void addRecording(const std::string& name, Eigen::MatrixXf frames, bool stacked,
                    std::optional<Eigen::Index> knownClass, Progress& progress);

  // Reduces a copy of the model and runs it over all recordings. `progress` is told of frames.
  PrecisionLoss measure(int bits, Progress& progress) const;

  std::size_t recordings() const { return recordings_.size(); }
  std::size_t frames() const { return frames_; }

  // Recordings that the model as it is decides rightly.
  std::size_t rightRecordings() const { return rightRecordings_; }

 private:
  struct Recording {
    Eigen::MatrixXf frames;
    Inputs inputs;
    Eigen::MatrixXf outputs;  // of the model as it is
    std::optional<Eigen::Index> knownClass;
  };

  MultiLayerNNModel& model_;
  std::vector<Recording> recordings_;
  std::size_t frames_ = 0;
  std::size_t rightRecordings_ = 0;
};

}  // namespace mlnn
