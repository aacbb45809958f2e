#include "tests/support/OrderedPass.h"

#include <algorithm>
#include <cmath>

#include "inference/kernels/Kernels.h"
#include "os/FusedMultiplyAdd.h"

namespace mlnn::test {
namespace {

// The chains of all rows, over the columns from `from` to `to`: column by column, as the weights
// lie.
void chainsOf(const LayerView& layer, const float* x, std::size_t from, std::size_t to,
              std::vector<float>& chains) {
  std::fill(chains.begin(), chains.end(), 0.0f);
  for (std::size_t c = from; c < to; ++c) {
    const float* const column = layer.weights + c * layer.rows;
    for (std::size_t row = 0; row < layer.rows; ++row) {
      chains[row] = fusedMultiplyAdd(column[row], x[c], chains[row]);
    }
  }
}

std::vector<float> sumsOf(const LayerView& layer, const float* x) {
  const std::size_t length = layer.rows <= 32 ? 16 : 128;
  std::vector<float> sums(layer.rows);
  std::vector<float> chains(layer.rows);
  for (std::size_t from = 0; from < layer.cols; from += length) {
    chainsOf(layer, x, from, std::min(from + length, layer.cols), chains);
    for (std::size_t row = 0; row < layer.rows; ++row) {
      sums[row] = from == 0 ? chains[row] : sums[row] + chains[row];
    }
  }
  return sums;
}

}  // namespace

std::vector<float> orderedLayer(const LayerView& layer, const float* x) {
  std::vector<float> y = sumsOf(layer, x);
  for (std::size_t row = 0; row < layer.rows; ++row) {
    const float sum = y[row];
    const float affine = layer.scale == nullptr
                             ? sum + layer.shift[row]
                             : fusedMultiplyAdd(layer.scale[row], sum, layer.shift[row]);
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
