// ModelBudget — what a model needs of whoever deploys it, worked out from its shape.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

#include "features/Export.h"
#include "features/Watch.h"
#include "model/MultiLayerNNModel.h"

namespace mlnn {

struct ModelBudget {
  // Bytes of all arrays of all layers, and of those among them that a forward pass reads.
  uint64_t parameterBytes = 0;
  uint64_t readBytes = 0;

  // Bytes that a forward pass keeps beside the model when it is given one frame at a time.
  uint64_t workingBytes = 0;

  // Bytes that a mlnn::DevicePass is given, on every processor.
  uint64_t deviceBytes = 0;

  // For one frame: the products of weights and inputs, each added up, and in batch-norm layers
  // of scales and sums; the values that go through an activation that is not linear, or
  // through the softmax.
  uint64_t multiplyAdds = 0;
  uint64_t activations = 0;

  // How an image stores the weights of each layer, in words.
  std::string weightForms;

  // What there is to say of layers that are quantised by rows (analysis/WeightForms.h).
  std::string quantized;
};

// `watch` is called with 0 steps.
MLNN_EXPORT ModelBudget budgetOf(const MultiLayerNNModel& model, const Watch& watch = {});

// What a forward pass over codes holds in place of the model's arrays.
struct CodedSize {
  uint64_t bytes = 0;           // in all
  std::size_t codedLayers = 0;  // the others hold floats
};

// REQUIRES: bits is 1 to 8.
// Makes the pass. `watch` is called with 0 steps.
// Returns: nothing, after the forward pass's own message, when the model cannot be run.
MLNN_EXPORT std::optional<CodedSize> codedSizeOf(const MultiLayerNNModel& model, int bits,
                                                 const Watch& watch = {});

// What a pass in integers (inference/IntegerFwdPass.h) needs.
struct IntegerSize {
  uint64_t bytes = 0;             // that it holds in place of the model's arrays
  uint64_t workingBytes = 0;      // that it keeps besides, when it is given one frame at a time
  std::size_t integerLayers = 0;  // the others are computed in floats
};

// Makes the pass, as codedSizeOf does. `watch` is called with 0 steps.
// Returns: nothing, after the pass's own message, when the model cannot be run.
MLNN_EXPORT std::optional<IntegerSize> integerSizeOf(const MultiLayerNNModel& model,
                                                     const Watch& watch = {});

// The sizes of the files that a model is saved to (model/FormatFit.h): an image, and a text with
// nine digits. Nothing where the format has no way to write the model.
struct FileSizes {
  std::optional<uint64_t> image;  // bytes of an image
  std::optional<uint64_t> text;   // bytes of a text
};

// `watch` is told of the bytes of the text.
MLNN_EXPORT FileSizes fileSizesOf(const MultiLayerNNModel& model, const Watch& watch = {});

}  // namespace mlnn
