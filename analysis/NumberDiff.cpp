#include "analysis/NumberDiff.h"

#include <algorithm>

#include "layers/FilledColumns.h"

namespace mlnn {
namespace {

using Eigen::Index;

struct NamedArray {
  const char* name;
  Eigen::VectorXf NNLayer::*values;
  bool inBatchNorm;  // the kind of layer that uses it
};

constexpr NamedArray kVectors[] = {
    {"bias", &NNLayer::bias, false},        {"gamma", &NNLayer::gamma, true},
    {"beta", &NNLayer::beta, true},         {"gamma_inf", &NNLayer::gamma_inf, true},
    {"beta_inf", &NNLayer::beta_inf, true},
};

void add(LayerDifference& found, const std::string& array,
         const Eigen::Ref<const Eigen::MatrixXf>& a, const Eigen::Ref<const Eigen::MatrixXf>& b) {
  found.arrays.push_back({array, {}});
  found.arrays.back().difference.add(a, b);
}

// An array with one value for each output; zeros where the layer has none.
Eigen::VectorXf complete(const Eigen::VectorXf& values, Index outputs) {
  return values.size() == outputs ? values : Eigen::VectorXf(Eigen::VectorXf::Zero(outputs));
}

bool isZero(const Eigen::VectorXf& values) { return (values.array() == 0).all(); }

void compareArrays(const NNLayer& a, const NNLayer& b, LayerDifference& found) {
  add(found, "weights", a.weights, b.weights);
  for (const NamedArray& array : kVectors) {
    const bool isUsed = array.inBatchNorm == a.isBatchNorm;
    const Eigen::VectorXf valuesA = complete(a.*array.values, a.weights.rows());
    const Eigen::VectorXf valuesB = complete(b.*array.values, b.weights.rows());
    if (!isUsed && isZero(valuesA) && isZero(valuesB)) continue;
    add(found, std::string(array.name) + (isUsed ? "" : " (unused)"), valuesA, valuesB);
  }
}

Eigen::MatrixXf effectiveWeights(const NNLayer& layer) {
  if (!layer.isBatchNorm || filledColumns(layer.weights) == 0) return layer.weights;
  return layer.weights.array().colwise() * layer.gamma_inf.array();
}

const Eigen::VectorXf& effectiveBias(const NNLayer& layer) {
  return layer.isBatchNorm ? layer.beta_inf : layer.bias;
}

void compareMaps(const NNLayer& a, const NNLayer& b, LayerDifference& found) {
  add(found, "weights", a.weights, b.weights);
  add(found, "effective weights", effectiveWeights(a), effectiveWeights(b));
  add(found, "effective bias", effectiveBias(a), effectiveBias(b));
}

LayerDifference compareLayers(const NNLayer& a, const NNLayer& b, std::size_t number) {
  LayerDifference found;
  found.layer = number;
  found.sameShape = a.weights.rows() == b.weights.rows() && a.weights.cols() == b.weights.cols();
  found.sameKind = a.isBatchNorm == b.isBatchNorm;
  if (!found.sameShape) return found;
  if (found.sameKind) {
    compareArrays(a, b, found);
  } else {
    compareMaps(a, b, found);
  }
  return found;
}

}  // namespace

bool LayerDifference::isSame() const {
  return sameShape && sameKind &&
         std::all_of(arrays.begin(), arrays.end(), [](const ArrayDifference& array) {
           return array.difference.differing() == 0;
         });
}

std::vector<LayerDifference> compareNumbers(const MultiLayerNNModel& a,
                                            const MultiLayerNNModel& b) {
  std::vector<LayerDifference> layers;
  for (std::size_t i = 0; i < std::min(a.layers.size(), b.layers.size()); ++i) {
    layers.push_back(compareLayers(*a.layers[i], *b.layers[i], i + 1));
  }
  return layers;
}

}  // namespace mlnn
