// UnitActivity — which units of a model tell frames apart, and which do not.
//
// Internal: not installed.
#pragma once

#include <Eigen/Core>
#include <cstddef>
#include <vector>

#include "inference/LayerResult.h"
#include "model/MultiLayerNNModel.h"

namespace mlnn {

// What the units of a layer gave over all frames, after the activation.
struct LayerActivity {
  std::size_t units = 0;
  std::vector<Eigen::Index> dead;       // gave the same value each time; counted from 0
  std::vector<Eigen::Index> saturated;  // stayed at one end of the activation; not dead
  double smallest = 0;                  // of all values; NaN where any is
  double largest = 0;
};

class UnitActivity {
 public:
  // REQUIRES: the model outlives this object and does not change.
  explicit UnitActivity(const MultiLayerNNModel& model) : model_(model) {}

  // Takes in what each layer computed for some frames.
  void add(const std::vector<LayerResult>& layers);

  std::size_t frames() const { return frames_; }

  // Returns one for each layer; none before two frames are taken in, of which nothing can be told.
  //
  // A unit is saturated where each of its values is within a hundredth of the activation's range
  // of the same end of it: sigmoid has 0 and 1, tanh -1 and 1. Others have no two ends.
  std::vector<LayerActivity> layers() const;

 private:
  struct Range {
    Eigen::VectorXf smallest;  // of each unit
    Eigen::VectorXf largest;
  };

  const MultiLayerNNModel& model_;
  std::vector<Range> ranges_;  // one for each layer
  std::size_t frames_ = 0;
};

}  // namespace mlnn
