#include "model/RowQuantization.h"

#include <algorithm>
#include <cmath>

#include "features/EigenAssign.h"
#include "layers/FilledColumns.h"
#include "layers/Report.h"
#include "model/MultiLayerNNModel.h"

namespace mlnn {
namespace {

using Eigen::Index;

constexpr double kMaxFloat = std::numeric_limits<float>::max();

// Bits of a scale: with the 7 of a code they are no more than the 24 of a float, so that no product
// of the two is rounded.
constexpr int kScaleBits = 17;

// Scales that are tried for the least squared error: this many 64ths of the first one, and fewer.
constexpr int kScaleSteps = 64;
constexpr int kFewestScaleSteps = 33;

// Returns the distance of scales as large as this value. Below the smallest float there is none.
double scaleUnit(double value) {
  constexpr int kSmallestExponent = -149;
  int exponent;
  std::frexp(value, &exponent);
  return std::ldexp(1.0, std::max(exponent - kScaleBits, kSmallestExponent));
}

// Codes from -largest to largest times a scale.
struct RowGrid {
  double largest;
  double scale;

  // The scale for which the largest code means no less than `size`; a little less where that would
  // be more than a float.
  static RowGrid upTo(double size, int bits) {
    const double largest = (1 << (bits - 1)) - 1;
    if (size == 0) return {largest, 0};
    const double unit = scaleUnit(size / largest);
    const double above = std::ceil(size / largest / unit) * unit;
    if (above * largest <= kMaxFloat) return {largest, above};
    return {largest, std::floor(size / largest / unit) * unit};
  }

  // So many 64ths of the scale, to the next above that a scale can be.
  RowGrid steps(int count) const {
    const double less = scale * count / kScaleSteps;
    const double unit = scaleUnit(less);
    return {largest, std::ceil(less / unit) * unit};
  }

  // The nearest point, in the default rounding: of two that are as near, the even multiple.
  float snapped(float weight) const {
    if (scale == 0) return 0;
    const double code = std::clamp(std::nearbyint(double{weight} / scale), -largest, largest);
    return code == 0 ? 0 : static_cast<float>(code * scale);
  }

  double squaredError(const Eigen::VectorXf& row) const {
    double sum = 0;
    for (const float weight : row) {
      const double error = double{weight} - double{snapped(weight)};
      sum += error * error;
    }
    return sum;
  }
};

RowGrid gridFor(const Eigen::VectorXf& row, const RowQuantization& options) {
  const RowGrid first = RowGrid::upTo(double{row.cwiseAbs().maxCoeff()}, options.bits);
  if (options.scale == RowScale::kLargest || first.scale == 0) return first;
  RowGrid best = first;
  double least = first.squaredError(row);
  for (int steps = kScaleSteps - 1; steps >= kFewestScaleSteps; --steps) {
    const RowGrid grid = first.steps(steps);
    const double error = grid.squaredError(row);
    if (error >= least) continue;
    best = grid;
    least = error;
  }
  return best;
}

// Returns the layer's weights, each on a point of its row's grid.
Eigen::MatrixXf snappedWeights(const Eigen::MatrixXf& weights, const RowQuantization& options,
                               const Watch& watch) {
  Eigen::MatrixXf snapped(weights.rows(), weights.cols());
  if (weights.size() == 0) return snapped;
  constexpr Index kRows = 16;  // at a time, so that each column is read a cache line at once
  for (Index first = 0; first < weights.rows(); first += kRows) {
    const Index count = std::min(kRows, weights.rows() - first);
    Eigen::MatrixXf rows = weights.middleRows(first, count).transpose();
    for (Index r = 0; r < count; ++r) {
      const RowGrid grid = gridFor(rows.col(r), options);
      for (float& weight : rows.col(r)) weight = grid.snapped(weight);
    }
    snapped.middleRows(first, count) = rows.transpose();
    tell(watch, 0);
  }
  return snapped;
}

double relativeError(const Eigen::MatrixXf& weights, const Eigen::MatrixXf& snapped) {
  double errors = 0;
  double squares = 0;
  for (Index i = 0; i < weights.size(); ++i) {
    const double weight = double{weights.data()[i]};
    const double error = weight - double{snapped.data()[i]};
    errors += error * error;
    squares += weight * weight;
  }
  return squares == 0 ? 0 : std::sqrt(errors / squares);
}

// --- Batch norm ---

bool isPowerOfTwo(float value) {
  int exponent;
  return std::isfinite(value) && std::fabs(std::frexp(value, &exponent)) == 0.5f;
}

// Whether factor * weight is the float that it should be, for all rows.
bool productsAreExact(const Eigen::VectorXf& factors, const Eigen::MatrixXf& weights) {
  for (Index c = 0; c < filledColumns(weights); ++c) {
    for (Index r = 0; r < weights.rows(); ++r) {
      const double product = double{factors[r]} * double{weights(r, c)};
      if (std::fabs(product) > kMaxFloat) return false;
      if (double{static_cast<float>(product)} != product) return false;
    }
  }
  return true;
}

// Turns a batch-norm layer into a plain one where that changes no bit of its results.
bool foldWhereExact(NNLayer& layer) {
  const Eigen::VectorXf& factors = layer.gamma_inf;
  if (!layer.isBatchNorm || factors.size() != layer.weights.rows()) return false;
  if (layer.beta_inf.size() != layer.weights.rows()) return false;
  if (!std::all_of(factors.begin(), factors.end(), isPowerOfTwo)) return false;
  if (!productsAreExact(factors, layer.weights)) return false;
  for (Index c = 0; c < filledColumns(layer.weights); ++c) {
    for (Index r = 0; r < layer.weights.rows(); ++r) {
      float& weight = layer.weights(r, c);
      weight = weight == 0 ? 0 : weight * factors[r];  // never -0
    }
  }
  assign(layer.bias, layer.beta_inf);
  layer.isBatchNorm = false;
  return true;
}

// --- The whole model ---

QuantizedLayer quantize(NNLayer& layer, const RowQuantization& options, const Watch& watch) {
  QuantizedLayer result;
  const Eigen::MatrixXf snapped = snappedWeights(layer.weights, options, watch);
  result.relativeError = relativeError(layer.weights, snapped);
  tell(watch, 0);
  if (result.relativeError > options.largestError) return result;
  layer.weights = snapped;  // in place: others may look at the array
  result.isQuantized = true;
  result.isFolded = foldWhereExact(layer);
  return result;
}

bool areFinite(const Eigen::MatrixXf& weights) {
  return weights.leftCols(filledColumns(weights)).allFinite();
}

bool isRefused(const MultiLayerNNModel& model, int bits) {
  if (bits < RowQuantization::kMinBits || bits > RowQuantization::kMaxBits) {
    report({"ERROR: quantizeRows: bits must be ", RowQuantization::kMinBits, " to ",
            RowQuantization::kMaxBits, ", got ", bits});
    return true;
  }
  for (std::size_t i = 0; i < model.layers.size(); ++i) {
    if (model.layers[i] == nullptr || areFinite(model.layers[i]->weights)) continue;
    report({"ERROR: quantizeRows: layer ", i + 1, " has a weight that is not finite"});
    return true;
  }
  return false;
}

}  // namespace

int quantizeRows(MultiLayerNNModel& model, const RowQuantization& options,
                 std::vector<QuantizedLayer>* layers) {
  return quantizeRows(model, options, layers, Watch());
}

int quantizeRows(MultiLayerNNModel& model, const RowQuantization& options,
                 std::vector<QuantizedLayer>* layers, const Watch& watch) {
  if (isRefused(model, options.bits)) return 1;
  std::vector<QuantizedLayer> results(model.layers.size());
  for (std::size_t i = 0; i < results.size(); ++i) {
    if (model.layers[i] != nullptr) results[i] = quantize(*model.layers[i], options, watch);
  }
  if (layers != nullptr) layers->swap(results);
  return 0;
}

}  // namespace mlnn
