// ModelLayers — the layers of a model as a forward pass reads them.
// Internal: not installed.
#pragma once

#include <Eigen/Core>

#include "inference/LayerStackPass.h"

class MultiLayerNNModel;

namespace mlnn {

// Returns whether a forward pass can evaluate the model: it has layers, each of them fits its
// arrays and the layer before it.
// Prints: else an error line, in the name of `operation`.
bool canBeEvaluated(const MultiLayerNNModel& model, const char* operation);

// Returns whether `inputs` has `expected` rows.
// Prints: else an error line, in the name of `operation`.
bool inputsFit(const Eigen::Ref<const Eigen::MatrixXf>& inputs, int expected,
               const char* operation);

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
