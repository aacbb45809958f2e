#include "inference/CodedLayer.h"

#include <algorithm>
#include <cmath>

#include "inference/WatchedPieces.h"
#include "os/FusedMultiplyAdd.h"

namespace mlnn {
namespace {

constexpr int kHalfByteBits = 4;

// Unlike ==, tells zeros of different signs apart, and takes all NaN for one value.
bool areSame(float a, float b) {
  if (std::isnan(a) || std::isnan(b)) return std::isnan(a) && std::isnan(b);
  return a == b && std::signbit(a) == std::signbit(b);
}

float valueOf(const PrecisionGrid& grid, std::size_t point) {
  return fusedMultiplyAdd(grid.step, static_cast<float>(point), grid.origin);
}

// The number of the grid point that a weight comes to lie on, or one beyond `largest`.
std::size_t pointOf(const PrecisionGrid& grid, float weight, std::size_t largest) {
  const float position = grid.scale * (weight - grid.origin);
  if (!(position > 0)) return 0;
  return position < static_cast<float>(largest + 1) ? static_cast<std::size_t>(position)
                                                    : largest + 1;
}

std::vector<float> valuesOf(const Eigen::VectorXf& array) {
  return std::vector<float>(array.data(), array.data() + array.size());
}

template <typename T>
std::size_t bytesOf(const std::vector<T>& values) {
  return values.size() * sizeof(T);
}

}  // namespace

CodedLayer::CodedLayer(const NNLayer& layer, const PrecisionGrid& grid, int bits,
                       std::size_t fewest, const Watch& watch)
    : rows_(static_cast<std::size_t>(layer.weights.rows())),
      cols_(static_cast<std::size_t>(layer.weights.cols())),
      actFn_(layer.actFn),
      scale_(layer.isBatchNorm ? valuesOf(layer.gamma_inf) : std::vector<float>()),
      shift_(valuesOf(layer.isBatchNorm ? layer.beta_inf : layer.bias)) {
  if (!layer.isBatchNorm) grid.snap(shift_.data(), shift_.size());
  coded_.areHalfBytes = bits <= kHalfByteBits;
  coded_.origin = grid.origin;
  coded_.step = grid.step;
  if (!pays(fewest) || !encode(layer, grid, watch)) keepFloats(layer, grid, watch);
}

std::size_t CodedLayer::panels() const { return (rows_ + kCodedPanelRows - 1) / kCodedPanelRows; }

bool CodedLayer::pays(std::size_t fewest) const {
  const std::size_t weights = rows_ * cols_;
  const std::size_t bytes = panels() * cols_ * coded_.columnBytes();
  return weights >= fewest && bytes <= weights * sizeof(float) / 2;
}

// Returns whether all weights have codes.
bool CodedLayer::encode(const NNLayer& layer, const PrecisionGrid& grid, const Watch& watch) {
  const std::size_t panelBytes = cols_ * coded_.columnBytes();
  const std::size_t codeCount = coded_.areHalfBytes ? 16 : 256;
  for (std::size_t point = 0; point < codeCount; ++point) values_.push_back(valueOf(grid, point));
  coded_.lastValue = valueOf(grid, codeCount);
  codes_.resize(panels() * panelBytes);
  for (std::size_t panel = 0; panel < panels(); ++panel) {
    lastOf_.push_back(last_.size());
    const std::size_t row = panel * kCodedPanelRows;
    const std::size_t rows = std::min(kCodedPanelRows, rows_ - row);
    for (std::size_t input = 0; input < cols_; ++input) {
      const float* column = layer.weights.data() + input * rows_ + row;
      uint8_t* codes = codes_.data() + panel * panelBytes + input * coded_.columnBytes();
      if (!encodeColumn(column, rows, input, codes, grid)) return false;
    }
    tell(watch, 0);
  }
  lastOf_.push_back(last_.size());
  last_.shrink_to_fit();
  coded_.codes = codes_.data();
  coded_.values = values_.data();
  coded_.last = last_.data();
  coded_.lastOf = lastOf_.data();
  return true;
}

// One input of a panel. Returns whether the codes stand for what the grid makes of the weights.
bool CodedLayer::encodeColumn(const float* weights, std::size_t rows, std::size_t input,
                              uint8_t* codes, const PrecisionGrid& grid) {
  float snapped[kCodedPanelRows];
  std::copy(weights, weights + rows, snapped);
  grid.snap(snapped, rows);
  const std::size_t codeCount = values_.size();
  LastPoints last{input, 0};
  for (std::size_t row = 0; row < rows; ++row) {
    const std::size_t point = pointOf(grid, weights[row], codeCount);
    const float value = point < codeCount ? values_[point] : coded_.lastValue;
    if (point > codeCount || !areSame(value, snapped[row])) return false;
    if (point == codeCount) {
      last.rows |= uint64_t{1} << row;
      continue;
    }
    if (!coded_.areHalfBytes) {
      codes[row] = static_cast<uint8_t>(point);
    } else {
      const std::size_t half = coded_.columnBytes();
      const int shift = row < half ? 0 : 4;
      codes[row % half] = static_cast<uint8_t>(codes[row % half] | point << shift);
    }
  }
  if (last.rows != 0) last_.push_back(last);
  return true;
}

void CodedLayer::keepFloats(const NNLayer& layer, const PrecisionGrid& grid, const Watch& watch) {
  codes_ = {};
  values_ = {};
  last_ = {};
  lastOf_ = {};
  weights_ = copyInPieces(layer.weights.data(), rows_ * cols_, watch);
  inPieces(weights_.size(), watch, [&](std::size_t first, std::size_t count) {
    grid.snap(weights_.data() + first, count);
  });
}

LayerView CodedLayer::view() const {
  return {weights_.data(),
          rows_,
          cols_,
          scale_.empty() ? nullptr : scale_.data(),
          shift_.data(),
          actFn_,
          isCoded() ? &coded_ : nullptr};
}

std::size_t CodedLayer::bytes() const {
  return bytesOf(scale_) + bytesOf(shift_) + bytesOf(weights_) + bytesOf(codes_) +
         bytesOf(values_) + bytesOf(last_) + bytesOf(lastOf_);
}

}  // namespace mlnn
