#include "inference/IntegerLayers.h"

#include <cstring>
#include <optional>
#include <utility>

#include "layers/FreshMemory.h"
#include "layers/NNLayer.h"
#include "layers/RowCodes.h"
#include "model/MultiLayerNNModel.h"

namespace mlnn {
namespace {

std::vector<float> valuesOf(const Eigen::MatrixXf& array) {
  return std::vector<float>(array.data(), array.data() + array.size());
}

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

IntegerLayer::IntegerLayer(const NNLayer& layer, bool takesWords)
    : rows_(static_cast<std::size_t>(layer.weights.rows())),
      cols_(static_cast<std::size_t>(layer.weights.cols())),
      actFn_(layer.actFn),
      takesWords_(takesWords),
      scale_(layer.isBatchNorm ? valuesOf(layer.gamma_inf) : std::vector<float>()),
      shift_(valuesOf(layer.isBatchNorm ? layer.beta_inf : layer.bias)) {
  std::optional<RowScales> found;
  if (cols_ <= kMostDotInputs) found = findRowScales(layer.weights.data(), rows_, cols_);
  if (!found) {
    weights_ = valuesOf(layer.weights);
    return;
  }
  bits_ = found->bits;
  const auto length = static_cast<std::size_t>(rowCodesLength(rows_, cols_, bits_));
  codes_.resize(static_cast<Eigen::Index>(length));
  adviseHugePages(codes_.data(), length);
  ArraySink sink(codes_.data());
  writeRowCodes(*found, layer.weights.data(), rows_, cols_, sink);
  rowScales_ = std::move(found->values);
}

IntegerLayerView IntegerLayer::view() const {
  IntegerLayerView view{};
  view.layer = {weights_.data(), rows_, cols_, scale_.empty() ? nullptr : scale_.data(),
                shift_.data(),   actFn_};
  if (bits_ == 0) return view;
  view.layer.weights = nullptr;
  view.codes = {rows_, cols_, bits_, reinterpret_cast<const char*>(rowScales_.data()),
                codes_.data()};
  view.rowScales = rowScales_.data();
  view.takesWords = takesWords_;
  return view;
}

std::size_t IntegerLayer::bytes() const {
  const std::size_t floats = scale_.size() + shift_.size() + rowScales_.size() + weights_.size();
  return floats * sizeof(float) + static_cast<std::size_t>(codes_.size());
}

IntegerLayers::IntegerLayers(const MultiLayerNNModel& model, WideInputs wideInputs)
    : endsInSoftmax_(model.useSoftmax) {
  layers_.reserve(model.layers.size());
  for (const NNLayer* layer : model.layers) {
    layers_.emplace_back(*layer, takesWords(wideInputs, layers_.size()));
  }
}

std::size_t IntegerLayers::bytes() const {
  std::size_t bytes = 0;
  for (const IntegerLayer& layer : layers_) bytes += layer.bytes();
  return bytes;
}

}  // namespace mlnn
