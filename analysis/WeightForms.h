// How the weights of a model's layers stand in its image.
#pragma once

#include <cstdint>
#include <string>

#include "features/Export.h"
#include "features/Watch.h"
#include "model/MultiLayerNNModel.h"

namespace mlnn {

// What an image makes of the weights of a layer.
struct StoredWeights {
  const char* form = "";  // as weightForm says it
  uint64_t bytes = 0;     // that they take there, with their table or scales

  // Of weights by rows: the bits that the largest code needs, 2 to 8, which is what quantizeRows
  // was asked for, or fewer where that was more than was needed. 0 in any other form.
  int rowBits = 0;
};

// `watch` is called with 0 steps.
MLNN_EXPORT StoredWeights storedWeights(const NNLayer& layer, const Watch& watch = {});

// Returns how the layer's weights are stored in an image: "floats", "bytes", "half bytes", "bytes
// by rows" or "half bytes by rows".
MLNN_EXPORT const char* weightForm(const NNLayer& layer);

// Returns it for all layers, as in "floats in layer 1, bytes in layers 2-4"; "none" without layers.
// `watch` is told of layers.
MLNN_EXPORT std::string weightForms(const MultiLayerNNModel& model, const Watch& watch = {});

// Returns to how many bits the layers with weights by rows are quantised, and what an image takes
// for their weights: "8 bits a weight in layers 1-3, and a scale a row: 44432 bytes in place of
// 172544, 25.8 %". Returns "" where there is no such layer. `watch` is told of layers.
MLNN_EXPORT std::string quantizedText(const MultiLayerNNModel& model, const Watch& watch = {});

}  // namespace mlnn
