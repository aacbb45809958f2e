// BehaviourDiff — runs two models over the same frames, and finds where their results part.
#pragma once

#include <Eigen/Core>
#include <cstddef>
#include <optional>
#include <string>
#include <vector>

#include "analysis/Difference.h"
#include "analysis/Stage.h"
#include "features/Export.h"
#include "features/Watch.h"
#include "inference/RecordingInputs.h"
#include "model/MultiLayerNNModel.h"

namespace mlnn {

// How far apart the models are at one stage (analysis/Stage.h) over all frames.
struct MLNN_EXPORT StageDifference {
  std::string stage;         // its name
  Eigen::Index valuesA = 0;  // values for one frame
  Eigen::Index valuesB = 0;  // the same of the other model
  Difference difference;     // none when the models have not as many values

  // Whether the models part here: other numbers of values, or a difference over `tolerance`.
  bool isBeyond(double tolerance) const;
};

// Where a stage differs most, counted from 0.
struct FramePlace {
  std::string recording;  // as addRecording was given it

  // Within the recording, and within the stage's values for a frame.
  Eigen::Index frame = 0;
  Eigen::Index unit = 0;
};

class MLNN_EXPORT BehaviourDiff {
 public:
  // REQUIRES: both models outlive this object and do not change.
  BehaviourDiff(const MultiLayerNNModel& a, const MultiLayerNNModel& b);

  // Runs both models over a recording, each on the input vectors that its own description makes of
  // the frames, and adds up the differences. `name` is what FramePlace calls the recording. `watch`
  // is told of frames.
  // Returns: whether both models can be run; if not, after the forward pass's own message.
  // On failure, and when the watch throws: a part of the recording is taken in.
  // REQUIRES: the inputs were made for frames as wide as these, of a and of b.
  bool addRecording(const std::string& name, const Eigen::Ref<const Eigen::MatrixXf>& frames,
                    const RecordingInputs& inputsA, const RecordingInputs& inputsB,
                    const Watch& watch = {});

  // The inputs, the layers that both models have, and the outputs, in this order.
  const std::vector<StageDifference>& stages() const { return stages_; }
  const StageDifference& outputs() const { return stages_.back(); }

  // Returns the first stage where the models part, or null.
  const StageDifference* firstBeyond(double tolerance) const;

  // Returns where that stage differs most; in no recording before there is a frame.
  // REQUIRES: it is one of stages().
  FramePlace placeOfLargest(const StageDifference& stage) const;

  std::size_t recordings() const { return recordings_; }  // taken in
  std::size_t frames() const { return frames_; }          // of all of them

  // Frames for which both models have the same best class.
  std::size_t sameDecisions() const { return sameDecisions_; }

 private:
  struct Block {
    std::string recording;
    Eigen::Index firstFrame;
  };

  void addBlock(const StageValues& a, const StageValues& b);

  const MultiLayerNNModel* a_;
  const MultiLayerNNModel* b_;
  std::vector<StageDifference> stages_;
  std::vector<Block> blocks_;  // what Difference::Place calls a pair
  std::size_t recordings_ = 0;
  std::size_t frames_ = 0;
  std::size_t sameDecisions_ = 0;
};

}  // namespace mlnn
