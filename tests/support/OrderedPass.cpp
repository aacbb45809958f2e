#include "tests/support/OrderedPass.h"

#include <algorithm>
#include <cmath>

#include "inference/kernels/Kernels.h"

namespace mlnn::test {
namespace {

float chainOf(const LayerView& layer, const float* x, std::size_t row, std::size_t from,
              std::size_t to) {
  float sum = 0;
  for (std::size_t c = from; c < to; ++c) {
    sum = std::fma(layer.weights[row + c * layer.rows], x[c], sum);
  }
  return sum;
}

float sumOf(const LayerView& layer, const float* x, std::size_t row) {
  const std::size_t length = layer.rows <= 32 ? 16 : 128;
  float sum = 0;
  for (std::size_t from = 0; from < layer.cols; from += length) {
    const float chain = chainOf(layer, x, row, from, std::min(from + length, layer.cols));
    sum = from == 0 ? chain : sum + chain;
  }
  return sum;
}

}  // namespace

std::vector<float> orderedLayer(const LayerView& layer, const float* x) {
  std::vector<float> y(layer.rows);
  for (std::size_t row = 0; row < layer.rows; ++row) {
    const float sum = sumOf(layer, x, row);
    const float affine = layer.scale == nullptr ? sum + layer.shift[row]
                                                : std::fma(layer.scale[row], sum, layer.shift[row]);
    y[row] = activated(layer.actFn, affine);
  }
  return y;
}

std::vector<float> orderedSoftmax(std::vector<float> values) {
  const float largest = *std::max_element(values.begin(), values.end());
  float chains[16] = {};
  for (std::size_t i = 0; i < values.size(); ++i) {
    values[i] = singleExpOfNegative(values[i] - largest);
    chains[i % 16] += values[i];
  }
  for (std::size_t half = 8; half > 0; half /= 2) {
    for (std::size_t i = 0; i < half; ++i) chains[i] += chains[i + half];
  }
  for (float& value : values) value /= chains[0];
  return values;
}

}  // namespace mlnn::test
