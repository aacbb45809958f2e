#include "tests/support/PlainIntegerPass.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <vector>

#include "inference/kernels/UnfusedKernels.h"
#include "model/MultiLayerNNModel.h"

namespace mlnn::test {
namespace {

using Eigen::Index;
using Eigen::VectorXf;

// The greatest number of which all weights of a row are multiples; 0 for a row of zeros, -1 where
// it leaves more than 127 of them or a weight is no number.
double scaleOf(const NNLayer& layer, Index row) {
  double scale = 0;
  double largest = 0;
  for (Index c = 0; c < layer.weights.cols(); ++c) {
    const float weight = layer.weights(row, c);
    if (!std::isfinite(weight) || (weight == 0 && std::signbit(weight))) return -1;
    double a = std::fabs(double{weight});
    largest = std::max(largest, a);
    while (a != 0) {
      const double rest = std::fmod(scale, a);
      scale = a;
      a = rest;
    }
  }
  return largest <= 127 * scale ? scale : -1;
}

float withOneNaN(float value) {
  const uint32_t bits = 0x7fc00000;
  if (value == value) return value;
  std::memcpy(&value, &bits, sizeof value);
  return value;
}

// Inputs as integers, and what one of them stands for.
struct Integers {
  std::vector<int> values;
  float scale = 0;
};

Integers integersOf(const VectorXf& x, int most) {
  Integers integers;
  integers.values.resize(static_cast<std::size_t>(x.size()));
  float largest = 0;
  for (Index i = 0; i < x.size(); ++i) {
    if (!std::isfinite(x[i])) {
      integers.scale = std::nanf("");
      return integers;
    }
    largest = std::max(largest, std::fabs(x[i]));
  }
  if (largest < std::ldexp(1.0f, -100)) return integers;
  const float factor = static_cast<float>(most) / largest;
  for (Index i = 0; i < x.size(); ++i) {
    integers.values[static_cast<std::size_t>(i)] =
        static_cast<int>(std::nearbyint(double{x[i] * factor}));
  }
  integers.scale = largest / static_cast<float>(most);
  return integers;
}

float integerSum(const NNLayer& layer, Index row, const Integers& x, bool words) {
  const double scale = scaleOf(layer, row);
  int64_t high = 0;
  int64_t low = 0;
  for (Index c = 0; c < layer.weights.cols(); ++c) {
    const double weight = double{layer.weights(row, c)};
    const int64_t code = scale == 0 ? 0 : static_cast<int64_t>(weight / scale);
    const int value = x.values[static_cast<std::size_t>(c)];
    const int upper = words ? static_cast<int>(std::floor((value + 128) / 256.0)) : 0;
    high += code * upper;
    low += code * (value - 256 * upper);
  }
  float sum = static_cast<float>(low);
  if (words) sum = static_cast<float>(high) * 256.0f + sum;
  return sum * x.scale * static_cast<float>(scale);
}

float floatSum(const NNLayer& layer, Index row, const VectorXf& x) {
  float sum = 0;
  for (Index c = 0; c < x.size(); ++c) {
    const float product = layer.weights(row, c) * x[c];
    sum = product + sum;
  }
  return sum;
}

void plainSoftmax(Eigen::Ref<VectorXf> values) {
  if (values.size() == 0) return;
  float largest = values[0];
  for (const float value : values) largest = std::max(largest, value);
  float chains[16] = {};
  for (Index i = 0; i < values.size(); ++i) {
    values[i] = unfusedExpOfNegative(values[i] - largest);
    chains[i % 16] += values[i];
  }
  for (std::size_t half = 8; half > 0; half /= 2) {
    for (std::size_t i = 0; i < half; ++i) chains[i] += chains[i + half];
  }
  for (float& value : values) value /= chains[0];
}

}  // namespace

bool hasRowCodes(const NNLayer& layer) {
  if (layer.weights.size() == 0) return false;
  for (Index row = 0; row < layer.weights.rows(); ++row) {
    if (scaleOf(layer, row) < 0) return false;
  }
  return true;
}

VectorXf plainIntegerLayer(const NNLayer& layer, const VectorXf& x, bool words) {
  const bool isCoded = hasRowCodes(layer);
  const Integers integers = isCoded ? integersOf(x, words ? 32639 : 127) : Integers();
  VectorXf y(layer.weights.rows());
  for (Index row = 0; row < y.size(); ++row) {
    float v = isCoded ? integerSum(layer, row, integers, words) : floatSum(layer, row, x);
    if (layer.isBatchNorm) v = v * layer.gamma_inf[row];
    v = v + (layer.isBatchNorm ? layer.beta_inf[row] : layer.bias[row]);
    y[row] = unfusedActivated(layer.actFn, v);
  }
  return y;
}

Eigen::MatrixXf plainIntegerPass(const MultiLayerNNModel& model, const Eigen::MatrixXf& inputs,
                                 WideInputs wideInputs) {
  Eigen::MatrixXf outputs(model.numOutputs(), inputs.cols());
  for (Index f = 0; f < inputs.cols(); ++f) {
    VectorXf x = inputs.col(f);
    for (std::size_t i = 0; i < model.layers.size(); ++i) {
      const bool words =
          wideInputs == WideInputs::kAll || (wideInputs == WideInputs::kFirst && i == 0);
      x = plainIntegerLayer(*model.layers[i], x, words);
    }
    if (model.useSoftmax) plainSoftmax(x);
    outputs.col(f) = x.unaryExpr(&withOneNaN);
  }
  return outputs;
}

void roundByRows(NNLayer& layer, int most) {
  constexpr float kBits = 65536.0f;  // a scale keeps 16 of its bits
  for (Index row = 0; row < layer.weights.rows(); ++row) {
    const float largest = layer.weights.row(row).cwiseAbs().maxCoeff();
    int exponent = 0;
    const float mantissa = std::frexp(largest / static_cast<float>(most), &exponent);
    const float scale = std::ldexp(std::ceil(mantissa * kBits) / kBits, exponent);
    for (Index c = 0; c < layer.weights.cols(); ++c) {
      float& weight = layer.weights(row, c);
      weight = scale == 0 ? 0.0f : std::nearbyint(weight / scale) * scale + 0.0f;
    }
  }
}

}  // namespace mlnn::test
