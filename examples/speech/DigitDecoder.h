// DigitDecoder — what a network says of a sound, frame by frame, and of all of it.
#pragma once

#include <Eigen/Core>
#include <memory>
#include <string>
#include <vector>

#include "MelFrames.h"
#include "features/ContextWindow.h"
#include "model/MultiLayerNNModel.h"

// Opens a network that takes the frames of MelFrames.
// Throws std::runtime_error with the reason; what the library has to say stands on stderr.
std::unique_ptr<MultiLayerNNModel> loadNetwork(const std::string& name);

// Lifetime: the model must outlive it.
class DigitDecoder {
 public:
  explicit DigitDecoder(MultiLayerNNModel& model);

  // Frames that the posteriors of one wait for, those that the frame itself waits for included.
  int delay() const { return kFrameDelay + window_.delay(); }

  // Take the next frame, and after the last one go on with those that still wait.
  // Return: whether the posteriors of another frame are known now.
  bool push(const Frame& frame);
  bool finish();

  // Of the frame that was decided last.
  const Eigen::MatrixXf& posteriors() const { return posteriors_; }
  int frames() const { return frames_; }  // decided so far

  // The output with the largest sum of log posteriors, and that sum. REQUIRES: frames() > 0.
  int best(double& score) const;

  // The name of an output: what the model's property "labels" calls it.
  const std::string& label(int output) const { return labels_[static_cast<std::size_t>(output)]; }

 private:
  bool evaluate();

  mlnn::ContextWindow window_;
  NNFwdPassFromFile pass_;
  Eigen::MatrixXf input_;
  Eigen::MatrixXf posteriors_;
  Eigen::ArrayXd scores_;
  std::vector<std::string> labels_;
  int frames_ = 0;
};
