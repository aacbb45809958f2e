// ModelAverage — the weighted mean of models of one shape.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "features/Export.h"
#include "features/Watch.h"
#include "model/MultiLayerNNModel.h"

namespace mlnn {

// Says in what the second model's layers differ from the first's so that the two have no
// mean: in their number, or a layer in its kind, shape or activation; or that one of the models
// has a softmax. Layers count from 1.
// Returns: "" when nothing of this differs.
MLNN_EXPORT std::string whyNoMean(const MultiLayerNNModel& first, const MultiLayerNNModel& second);

// Returns the parts of the whole that weights stand for.
// REQUIRES: one weight at least; all are finite and above 0.
MLNN_EXPORT std::vector<float> sharesOf(const std::vector<double>& weights);

// Adds up the models as they come, each times its share, by the models' own *= and +=; so three
// models are in memory at most.
//
// A parameter that has the same bits in all models keeps them, whatever their number and
// shares are. (The sum alone would not see to that: three thirds of a float need not add up to
// it.) The mean of two models with shares of one half is the exact one, rounded once, for
// all but the smallest numbers (below 2^-125).
class MLNN_EXPORT ModelAverage {
 public:
  // Takes in the next model. The first one gives the mean all that is not averaged.
  // `watch` is called with 0 steps; what it throws leaves nothing that can still be used but
  // assigned to or destroyed.
  // REQUIRES: whyNoMean() is "" for the first model and this one.
  void add(MultiLayerNNModel model, float share, const Watch& watch = {});

  // The first of the models, as it came; an empty one before that.
  const MultiLayerNNModel& first() const { return first_; }

  // Whether all models so far have the same parameters.
  bool allAgree() const;

  // Returns the mean. The shares of all models are to have the sum 1.
  // Afterwards the object is empty.
  MultiLayerNNModel take();

 private:
  MultiLayerNNModel first_;
  MultiLayerNNModel sum_;
  std::vector<bool> agrees_;  // for every parameter, in the order of their arrays
  bool isEmpty_ = true;
};

}  // namespace mlnn
