#include "analysis/QuantizationDiff.h"

#include <memory>

#include "analysis/LayerRanges.h"
#include "layers/FilledColumns.h"
#include "layers/LayerArrays.h"
#include "model/LayerStack.h"
#include "text/Numbers.h"

namespace mlnn {
namespace {

using Eigen::Index;
using Layer = std::optional<LayerQuantization>;

// Arrays without values are not looked through: one without rows may have 2^31 columns.
template <typename Array>
bool areSame(const Array& a, const Array& b) {
  if (a.rows() != b.rows() || a.cols() != b.cols()) return false;
  return a.size() == 0 || (a.array() == b.array()).all();
}

bool isZero(const Eigen::VectorXf& values) { return (values.array() == 0).all(); }

bool isShift(const LayerVector& vector, const NNLayer& layer) {
  return &vector.of(layer) == (layer.isBatchNorm ? &layer.beta_inf : &layer.bias);
}

// Whether all is the same but perhaps the shift. Arrays that are zero may be absent.
bool differAtMostInShift(const NNLayer& expected, const NNLayer& found) {
  if (expected.isBatchNorm != found.isBatchNorm) return false;
  for (const LayerVector& vector : kLayerVectors) {
    const Eigen::VectorXf& a = vector.of(expected);
    const Eigen::VectorXf& b = vector.of(found);
    if (isShift(vector, expected) || areSame(a, b)) continue;
    if (vector.isUsedBy(expected) || !isZero(a) || !isZero(b)) return false;
  }
  return areSame(expected.weights, found.weights);
}

bool haveSameShift(const NNLayer& a, const NNLayer& b) {
  return a.isBatchNorm ? areSame(a.beta_inf, b.beta_inf) : areSame(a.bias, b.bias);
}

// A model of a copy of the layer.
MultiLayerNNModel modelOf(const NNLayer& layer) {
  MultiLayerNNModel model;
  auto copy = std::make_unique<NNLayer>(layer);
  model.layers.push_back(copy.get());
  copy.release();
  return model;
}

// Its one output, without batch norm.
NNLayer rowOf(const NNLayer& layer, Index row) {
  NNLayer one;
  one.weights = layer.weights.row(row);
  one.bias.setZero(1);
  return one;
}

// The first row that is not zero. REQUIRES: there is one.
Index firstRow(const NNLayer& layer) {
  Index row = 0;
  while ((layer.weights.row(row).array() == 0).all()) ++row;
  return row;
}

// Tries what may have been done to a layer, on one row before all of them.
class Trials {
 public:
  // REQUIRES: the weights of both are finite and of the same shape, and the first ones not all 0.
  Trials(const NNLayer& original, const NNLayer& changed, const Watch& watch)
      : original_(original),
        changed_(changed),
        watch_(watch),
        row_(firstRow(original)),
        originalRow_(rowOf(original, row_)) {}

  Layer find() const {
    for (int bits = RowQuantization::kMinBits; bits <= RowQuantization::kMaxBits; ++bits) {
      for (const RowScale scale : {RowScale::kLargest, RowScale::kLeastSquares}) {
        const Layer found = attempt(bits, scale);
        if (found) return found;
      }
    }
    return std::nullopt;
  }

 private:
  Layer attempt(int bits, RowScale scale) const {
    RowQuantization options;
    options.bits = bits;
    options.scale = scale;
    if (!rowFits(options)) return std::nullopt;
    MultiLayerNNModel model = modelOf(original_);
    tell(watch_, 0);
    std::vector<QuantizedLayer> done;
    if (quantizeRows(model, options, &done, watch_) != 0) return std::nullopt;
    tell(watch_, 0);
    const NNLayer& expected = *model.layers[0];
    if (!differAtMostInShift(expected, changed_)) return std::nullopt;
    return LayerQuantization{bits, scale, done[0].isFolded, !haveSameShift(expected, changed_)};
  }

  // The batch norm that is folded multiplies all of a row, so that only the shape can be compared.
  bool rowFits(const RowQuantization& options) const {
    if (original_.isBatchNorm != changed_.isBatchNorm) return true;
    MultiLayerNNModel model = modelOf(originalRow_);
    return quantizeRows(model, options) == 0 &&
           areSame(model.layers[0]->weights, rowOf(changed_, row_).weights);
  }

  const NNLayer& original_;
  const NNLayer& changed_;
  const Watch& watch_;
  Index row_;
  NNLayer originalRow_;
};

bool areFinite(const NNLayer& layer) {
  return layer.weights.leftCols(filledColumns(layer.weights)).allFinite();
}

Layer quantizationOf(const NNLayer& original, const NNLayer& changed, const Watch& watch) {
  if (differAtMostInShift(original, changed)) {
    LayerQuantization unchanged;
    unchanged.isShifted = !haveSameShift(original, changed);
    return unchanged;
  }
  const Eigen::MatrixXf& weights = original.weights;
  if (weights.rows() != changed.weights.rows()) return std::nullopt;
  if (weights.cols() != changed.weights.cols()) return std::nullopt;
  if (weights.size() == 0 || !areFinite(original)) return std::nullopt;
  if ((weights.array() == 0).all()) return std::nullopt;
  return Trials(original, changed, watch).find();
}

std::string wordsFor(const LayerQuantization& layer) {
  if (layer.bits == 0) return "";
  std::string words = counted(static_cast<std::size_t>(layer.bits), "bit");
  if (layer.scale == RowScale::kLeastSquares) words += " with the least squared error";
  if (layer.isFolded) words += ", batch norm folded,";
  return words;
}

}  // namespace

std::optional<std::vector<LayerQuantization>> findQuantization(const MultiLayerNNModel& original,
                                                               const MultiLayerNNModel& changed,
                                                               const Watch& watch) {
  if (original.layers.size() != changed.layers.size()) return std::nullopt;
  const Watch between = [&watch](std::size_t) { tell(watch, 0); };
  std::vector<LayerQuantization> layers;
  bool isAnyQuantized = false;
  for (std::size_t i = 0; i < original.layers.size(); ++i) {
    const Layer layer =
        quantizationOf(layerOrEmpty(original.layers[i]), layerOrEmpty(changed.layers[i]), between);
    if (!layer) return std::nullopt;
    isAnyQuantized = isAnyQuantized || layer->bits > 0;
    layers.push_back(*layer);
    tell(watch, 1);
  }
  if (!isAnyQuantized) return std::nullopt;
  return layers;
}

std::string describe(const std::vector<LayerQuantization>& layers) {
  std::string text =
      saidOfLayers(layers.size(), [&layers](std::size_t i) { return wordsFor(layers[i]); });
  const std::string shifts = saidOfLayers(layers.size(), [&layers](std::size_t i) {
    return std::string(layers[i].isShifted ? "other biases" : "");
  });
  return shifts.empty() ? text : text + "; " + shifts;
}

}  // namespace mlnn
