#include "analysis/QuantizationOutlook.h"

#include <algorithm>
#include <cmath>
#include <memory>
#include <vector>

#include "model/MultiLayerNNModel.h"
#include "model/RowQuantization.h"

namespace mlnn {
namespace {

using Eigen::Index;

constexpr Index kWeightsAtOnce = Index{1} << 18;
constexpr Index kFewestRows = 16;  // which share lines of the cache

// A model of one plain layer that has these weights.
MultiLayerNNModel modelOf(const Eigen::Ref<const Eigen::MatrixXf>& weights) {
  MultiLayerNNModel model;
  auto layer = std::make_unique<NNLayer>();
  layer->weights = weights;
  layer->bias = Eigen::VectorXf::Zero(weights.rows());
  model.layers.push_back(layer.get());
  layer.release();
  return model;
}

}  // namespace

// Each row has a scale of its own, so some rows at a time give what all together do.
std::optional<double> quantizationError(const NNLayer& layer, int bits, const Watch& watch) {
  const Eigen::MatrixXf& weights = layer.weights;
  if (weights.size() == 0 || !weights.allFinite()) return std::nullopt;
  RowQuantization options;
  options.bits = bits;
  const Index rowsAtOnce = std::max(kWeightsAtOnce / weights.cols(), kFewestRows);
  double squares = 0;
  double errors = 0;
  for (Index row = 0; row < weights.rows(); row += rowsAtOnce) {
    tell(watch, 0);
    const Index rows = std::min(rowsAtOnce, weights.rows() - row);
    const auto block = weights.middleRows(row, rows);
    MultiLayerNNModel model = modelOf(block);
    std::vector<QuantizedLayer> done;
    if (quantizeRows(model, options, &done) != 0) return std::nullopt;
    const double blockSquares = block.cast<double>().squaredNorm();
    squares += blockSquares;
    errors += done.front().relativeError * done.front().relativeError * blockSquares;
  }
  return squares == 0 ? 0 : std::sqrt(errors / squares);
}

}  // namespace mlnn
