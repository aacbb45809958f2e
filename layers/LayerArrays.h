// LayerArrays — the one list of what a layer holds: for each array its name, where it is, and which
// kind of layer uses it.
#pragma once

#include <Eigen/Core>
#include <cstddef>
#include <string_view>

#include "layers/NNLayer.h"

namespace mlnn {

// The name of the one array that is a matrix, and that every layer uses.
inline constexpr char kWeightsName[] = "weights";

// An array with one value for each output.
struct LayerVector {
  const char* name;
  Eigen::VectorXf NNLayer::*values;
  bool inBatchNorm;  // the kind of layer that uses it

  const Eigen::VectorXf& of(const NNLayer& layer) const { return layer.*values; }
  Eigen::VectorXf& of(NNLayer& layer) const { return layer.*values; }

  // Whether the layer computes or is trained with it; otherwise it may be empty.
  bool isUsedBy(const NNLayer& layer) const { return inBatchNorm == layer.isBatchNorm; }
};

// In the order of the record.
inline constexpr LayerVector kLayerVectors[] = {
    {"bias", &NNLayer::bias, false},        {"gamma", &NNLayer::gamma, true},
    {"beta", &NNLayer::beta, true},         {"gamma_inf", &NNLayer::gamma_inf, true},
    {"beta_inf", &NNLayer::beta_inf, true},
};

// A layer is these vectors, its weights, its activation and its kind. One that is added to it
// belongs into the list.
static_assert(sizeof(NNLayer) == sizeof(Eigen::MatrixXf) +
                                     std::size(kLayerVectors) * sizeof(Eigen::VectorXf) +
                                     2 * sizeof(ActFn::ActFn));

// Returns the vector of that name; null where there is none.
inline const LayerVector* layerVector(std::string_view name) {
  for (const LayerVector& vector : kLayerVectors) {
    if (vector.name == name) return &vector;
  }
  return nullptr;
}

// Calls `use(name, values)` for the weights and then for each vector.
template <typename Layer, typename Use>
void forEachArray(Layer& layer, Use use) {
  use(kWeightsName, layer.weights);
  for (const LayerVector& vector : kLayerVectors) use(vector.name, vector.of(layer));
}

// The same for those that a layer of this kind uses.
template <typename Layer, typename Use>
void forEachUsedArray(Layer& layer, Use use) {
  use(kWeightsName, layer.weights);
  for (const LayerVector& vector : kLayerVectors) {
    if (vector.isUsedBy(layer)) use(vector.name, vector.of(layer));
  }
}

}  // namespace mlnn
