// ModelLayers — the layers of a model as a forward pass reads them.
// Internal: not installed.
#pragma once

#include <cstddef>

#include "inference/Frames.h"
#include "inference/LayerStackPass.h"

class MultiLayerNNModel;

namespace mlnn {

// Returns whether a forward pass can evaluate the model: it is there and has layers, each of them
// fits its arrays and the layer before it. Prints: else an error line, in the name of `operation`.
bool canBeEvaluated(const MultiLayerNNModel* model, const char* operation);
inline bool canBeEvaluated(const MultiLayerNNModel& model, const char* operation) {
  return canBeEvaluated(&model, operation);
}

// Returns whether frames of `width` values are what a model of `expected` inputs takes.
// Prints: else an error line, in the name of `operation`.
bool inputsFit(std::ptrdiff_t width, int expected, const char* operation);

// Returns whether a forward pass of so many inputs and outputs can read the one and write the
// other.
// Prints: else an error line, in the name of `operation`.
bool framesFit(const InputFrames& inputs, const OutputFrames& outputs, int numInputs,
               int numOutputs, const char* operation);

// REQUIRES: canBeEvaluated. The model must outlive the object.
class ModelLayers final : public LayerSource {
 public:
  explicit ModelLayers(const MultiLayerNNModel& model) : model_(model) {}

  std::size_t count() const override;
  LayerView layer(std::size_t index) const override;
  bool endsInSoftmax() const override;

 private:
  const MultiLayerNNModel& model_;
};

}  // namespace mlnn
