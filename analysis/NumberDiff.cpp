#include "analysis/NumberDiff.h"

#include <algorithm>

#include "layers/FilledColumns.h"
#include "layers/LayerArrays.h"

namespace mlnn {
namespace {

using Eigen::Index;

// Adds up the differences of arrays, and tells a watch meanwhile.
class Comparison {
 public:
  Comparison(LayerDifference& found, const Watch& watch) : found_(found), watch_(watch) {}

  void add(const std::string& array, const Eigen::Ref<const Eigen::MatrixXf>& a,
           const Eigen::Ref<const Eigen::MatrixXf>& b) {
    found_.arrays.push_back({array, {}});
    found_.arrays.back().difference.add(a, b, watch_);
  }

 private:
  LayerDifference& found_;
  const Watch& watch_;
};

// An array with one value for each output; zeros where the layer has none.
Eigen::VectorXf complete(const Eigen::VectorXf& values, Index outputs) {
  return values.size() == outputs ? values : Eigen::VectorXf(Eigen::VectorXf::Zero(outputs));
}

bool isZero(const Eigen::VectorXf& values) { return (values.array() == 0).all(); }

void compareArrays(const NNLayer& a, const NNLayer& b, Comparison& found) {
  found.add(kWeightsName, a.weights, b.weights);
  for (const LayerVector& vector : kLayerVectors) {
    const bool isUsed = vector.isUsedBy(a);
    const Eigen::VectorXf valuesA = complete(vector.of(a), a.weights.rows());
    const Eigen::VectorXf valuesB = complete(vector.of(b), b.weights.rows());
    if (!isUsed && isZero(valuesA) && isZero(valuesB)) continue;
    found.add(std::string(vector.name) + (isUsed ? "" : " (unused)"), valuesA, valuesB);
  }
}

Eigen::MatrixXf effectiveWeights(const NNLayer& layer) {
  if (!layer.isBatchNorm || filledColumns(layer.weights) == 0) return layer.weights;
  return layer.weights.array().colwise() * layer.gamma_inf.array();
}

const Eigen::VectorXf& effectiveBias(const NNLayer& layer) {
  return layer.isBatchNorm ? layer.beta_inf : layer.bias;
}

void compareMaps(const NNLayer& a, const NNLayer& b, Comparison& found) {
  found.add(kWeightsName, a.weights, b.weights);
  found.add("effective weights", effectiveWeights(a), effectiveWeights(b));
  found.add("effective bias", effectiveBias(a), effectiveBias(b));
}

LayerDifference compareLayers(const NNLayer& a, const NNLayer& b, std::size_t number,
                              const Watch& watch) {
  LayerDifference found;
  found.layer = number;
  found.sameShape = a.weights.rows() == b.weights.rows() && a.weights.cols() == b.weights.cols();
  found.sameKind = a.isBatchNorm == b.isBatchNorm;
  if (!found.sameShape) return found;
  Comparison comparison(found, watch);
  if (found.sameKind) {
    compareArrays(a, b, comparison);
  } else {
    compareMaps(a, b, comparison);
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

std::vector<LayerDifference> compareNumbers(const MultiLayerNNModel& a, const MultiLayerNNModel& b,
                                            const Watch& watch) {
  std::vector<LayerDifference> layers;
  for (std::size_t i = 0; i < std::min(a.layers.size(), b.layers.size()); ++i) {
    layers.push_back(compareLayers(*a.layers[i], *b.layers[i], i + 1, watch));
    tell(watch, 1);
  }
  return layers;
}

}  // namespace mlnn
