#include "inference/IntegerLayers.h"

#include <cstring>
#include <optional>
#include <utility>

#include "inference/WatchedPieces.h"
#include "layers/NNLayer.h"
#include "layers/RowCodes.h"
#include "model/MultiLayerNNModel.h"
#include "os/FreshMemory.h"

namespace mlnn {
namespace {

std::vector<float> valuesOf(const Eigen::VectorXf& array) {
  return std::vector<float>(array.data(), array.data() + array.size());
}

// Fills an array from its beginning on.
class ArraySink final : public ByteSink {
 public:
  explicit ArraySink(uint8_t* to) : to_(to) {}
  void take(const void* bytes, std::size_t count) override {
    std::memcpy(to_, bytes, count);
    to_ += count;
  }

 private:
  uint8_t* to_;
};

}  // namespace

bool OwnRowCodes::find(const void* weights, std::size_t rows, std::size_t cols,
                       const Watch& watch) {
  if (cols > kMostDotInputs) return false;
  std::optional<RowScales> found = findRowScales(weights, rows, cols, watch);
  if (!found) return false;
  const auto length = static_cast<std::size_t>(rowCodesLength(rows, cols, found->bits));
  codes_.resize(static_cast<Eigen::Index>(length));
  adviseHugePages(codes_.data(), length);
  ArraySink sink(codes_.data());
  writeRowCodes(*found, weights, rows, cols, sink, watch);
  scales_ = std::move(found->values);
  view_ = {rows, cols, found->bits, reinterpret_cast<const char*>(scales_.data()), codes_.data()};
  return true;
}

std::size_t OwnRowCodes::bytes() const {
  return scales_.size() * sizeof(float) + static_cast<std::size_t>(codes_.size());
}

IntegerLayer::IntegerLayer(const NNLayer& layer, bool takesWords, const Watch& watch)
    : rows_(static_cast<std::size_t>(layer.weights.rows())),
      cols_(static_cast<std::size_t>(layer.weights.cols())),
      actFn_(layer.actFn),
      takesWords_(takesWords),
      scale_(layer.isBatchNorm ? valuesOf(layer.gamma_inf) : std::vector<float>()),
      shift_(valuesOf(layer.isBatchNorm ? layer.beta_inf : layer.bias)) {
  const float* const weights = layer.weights.data();
  if (codes_.find(weights, rows_, cols_, watch)) return;
  weights_ = copyInPieces(weights, rows_ * cols_, watch);
}

IntegerLayerView IntegerLayer::view() const {
  IntegerLayerView view{};
  view.layer = {weights_.data(), rows_, cols_, scale_.empty() ? nullptr : scale_.data(),
                shift_.data(),   actFn_};
  if (codes_.view().codes == nullptr) return view;
  view.layer.weights = nullptr;
  view.codes = codes_.view();
  view.rowScales = codes_.scales();
  view.takesWords = takesWords_;
  return view;
}

std::size_t IntegerLayer::bytes() const {
  return (scale_.size() + shift_.size() + weights_.size()) * sizeof(float) + codes_.bytes();
}

IntegerLayers::IntegerLayers(const MultiLayerNNModel& model, WideInputs wideInputs,
                             const Watch& watch)
    : endsInSoftmax_(model.useSoftmax) {
  layers_.reserve(model.layers.size());
  for (const NNLayer* layer : model.layers) {
    layers_.emplace_back(*layer, takesWords(wideInputs, layers_.size()), watch);
  }
}

std::size_t IntegerLayers::bytes() const {
  std::size_t bytes = 0;
  for (const IntegerLayer& layer : layers_) bytes += layer.bytes();
  return bytes;
}

}  // namespace mlnn
