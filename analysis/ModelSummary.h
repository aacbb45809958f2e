// ModelSummary — a model in numbers.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "analysis/WeightForms.h"
#include "features/Export.h"
#include "features/Watch.h"
#include "layers/ActFn.h"
#include "model/MultiLayerNNModel.h"

namespace mlnn {

// What a layer is.
struct LayerSummary {
  bool isBatchNorm = false;  // else it is plain

  // Its shape, and what it computes at its outputs.
  Eigen::Index inputs = 0;
  Eigen::Index outputs = 0;
  ActFn::ActFn actFn = ActFn::linear;

  std::size_t parameters = 0;  // the numbers that it computes or is trained with
  StoredWeights imageWeights;  // how an image stores its weights
};

// What a model is made of.
struct ModelSummary {
  std::vector<LayerSummary> layers;  // from the first to the last
  std::size_t parameters = 0;        // of all layers
  std::size_t memoryBytes = 0;  // what the model takes in memory, to within what the allocator adds
};

// `watch` is told of layers.
// REQUIRES: no layer is missing.
MLNN_EXPORT ModelSummary summaryOf(const MultiLayerNNModel& model, const Watch& watch = {});

}  // namespace mlnn
