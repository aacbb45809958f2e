#include "inference/ModelLayers.h"

#include "layers/Report.h"
#include "model/MultiLayerNNModel.h"

namespace mlnn {
namespace {

using Eigen::Index;

bool isEmptyOr(const Eigen::VectorXf& values, Index length) {
  return values.size() == 0 || values.size() == length;
}

// Whether a layer's arrays have the lengths that its kind asks for.
bool keepsInvariants(const NNLayer& layer) {
  const Index rows = layer.weights.rows();
  if (layer.actFn < 0 || layer.actFn >= ActFn::kCount) return false;
  if (!layer.isBatchNorm) {
    return layer.bias.size() == rows && isEmptyOr(layer.gamma, rows) &&
           isEmptyOr(layer.beta, rows) && isEmptyOr(layer.gamma_inf, rows) &&
           isEmptyOr(layer.beta_inf, rows);
  }
  return isEmptyOr(layer.bias, rows) && layer.gamma.size() == rows && layer.beta.size() == rows &&
         layer.gamma_inf.size() == rows && layer.beta_inf.size() == rows;
}

}  // namespace

bool canBeEvaluated(const MultiLayerNNModel& model, const char* operation) {
  if (model.layers.empty()) {
    report({"ERROR: ", operation, ": model has no layers"});
    return false;
  }
  const NNLayer* previous = nullptr;
  for (std::size_t i = 0; i < model.layers.size(); ++i) {
    const NNLayer* layer = model.layers[i];
    const bool fits = layer != nullptr && keepsInvariants(*layer) &&
                      (previous == nullptr || layer->weights.cols() == previous->weights.rows());
    if (!fits) {
      report({"ERROR: ", operation, ": layer ", i + 1, " does not fit the model"});
      return false;
    }
    previous = layer;
  }
  return true;
}

bool inputsFit(const Eigen::Ref<const Eigen::MatrixXf>& inputs, int expected,
               const char* operation) {
  if (inputs.rows() == expected) return true;
  report({"ERROR: ", operation, ": expected ", expected, " inputs but got ", inputs.rows()});
  return false;
}

std::size_t ModelLayers::count() const { return model_.layers.size(); }

LayerView ModelLayers::layer(std::size_t index) const {
  const NNLayer& layer = *model_.layers[index];
  return {layer.weights.data(),
          static_cast<std::size_t>(layer.weights.rows()),
          static_cast<std::size_t>(layer.weights.cols()),
          layer.isBatchNorm ? layer.gamma_inf.data() : nullptr,
          layer.isBatchNorm ? layer.beta_inf.data() : layer.bias.data(),
          layer.actFn};
}

bool ModelLayers::endsInSoftmax() const { return model_.useSoftmax; }

}  // namespace mlnn
