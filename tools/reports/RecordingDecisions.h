// RecordingDecisions — what the outputs of a recording say, frame by frame, in little memory.
#pragma once

#include <Eigen/Core>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <memory>
#include <vector>

namespace mlnn {

struct FrameDecision {
  int32_t best;  // the class; -1 where it cannot be told, since an output is not a number
  float value;   // its output
};

// Holds the decisions of many frames in a file without a name, so that a recording may be longer
// than memory; where no such file can be had, in memory.
class RecordingDecisions {
 public:
  // Where outputs are posteriors, there are sums of their logarithms as well.
  explicit RecordingDecisions(bool arePosteriors) : arePosteriors_(arePosteriors) {}

  // Takes outputs x frames.
  // Throws: Failure when the file cannot be written.
  void add(const Eigen::MatrixXf& outputs);

  uint64_t frames() const { return frames_; }

  // Frames whose class cannot be told. Where there are any, that of the recording cannot either.
  uint64_t undecided() const { return undecided_; }

  // The sums of log posteriors of all classes (inference/Evaluation.h).
  const Eigen::VectorXd& sums() const { return sums_; }

  // Calls `use` for every frame, counted from 0, in their order.
  // Throws: Failure when the file cannot be read.
  void forEach(const std::function<void(uint64_t frame, const FrameDecision&)>& use) const;

 private:
  struct Closing {
    void operator()(std::FILE* file) const { std::fclose(file); }
  };

  void putAway();

  bool arePosteriors_;
  uint64_t frames_ = 0;
  uint64_t undecided_ = 0;
  Eigen::VectorXd sums_;
  std::unique_ptr<std::FILE, Closing> file_;  // of the first ones; null where there is none
  std::vector<FrameDecision> held_;           // of those behind them
};

}  // namespace mlnn
