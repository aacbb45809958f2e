// findQuantization — tells whether a model is another one, quantised by rows.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

#include "features/Export.h"
#include "features/Watch.h"
#include "model/MultiLayerNNModel.h"
#include "model/RowQuantization.h"

namespace mlnn {

// What was done to a layer.
struct LayerQuantization {
  int bits = 0;  // the fewest that give its weights; 0 where they are as they were
  RowScale scale = RowScale::kLargest;  // how the rows' scales were chosen
  bool isFolded = false;                // its batch norm became part of its weights
  bool isShifted = false;               // its bias, or beta_inf, is another one
};

// Looks for what quantizeRows (model/RowQuantization.h), and perhaps correctBiases
// (inference/BiasCorrection.h), have done to `original` to make `changed` of it.
// Returns: one for each layer; nothing where the numbers differ in any other way, to the bit, or
// where no layer's weights differ.
// `watch` is told of layers.
// REQUIRES: no layer is missing.
MLNN_EXPORT std::optional<std::vector<LayerQuantization>> findQuantization(
    const MultiLayerNNModel& original, const MultiLayerNNModel& changed, const Watch& watch = {});

// Returns it in words: "8 bits in layers 1-2, 4 bits with the least squared error in layer 3; other
// biases in layers 1-3".
MLNN_EXPORT std::string describe(const std::vector<LayerQuantization>& layers);

}  // namespace mlnn
