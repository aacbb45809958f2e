#include "tests/support/GoldenModel.h"

#include <cmath>
#include <memory>

namespace mlnn::test {

namespace {

using Eigen::Index;
using Eigen::MatrixXf;

constexpr int kWidths[] = {kGoldenInputs, kGoldenWidest, 35, 21, 19};
constexpr int kFloats = 2;  // the layer without codes

float weightOf(int layer, int index, int row) {
  if (layer == kFloats) return static_cast<float>(29 * index % 1009 - 504) / 1009.0f;
  const int most = layer == 1 ? 7 : 127;
  const int code = (37 * index + 11) % (2 * most + 1) - most;
  return static_cast<float>(code) * (static_cast<float>(8 + row % 7) / 2048.0f);
}

std::unique_ptr<NNLayer> layerOf(int index, ActFn::ActFn actFn) {
  const int inputs = kWidths[index];
  auto layer = std::make_unique<NNLayer>(inputs, kWidths[index + 1], index == 1);
  layer->actFn = index < 3 ? actFn : ActFn::linear;
  for (int r = 0; r < kWidths[index + 1]; ++r) {
    for (int c = 0; c < inputs; ++c) layer->weights(r, c) = weightOf(index, r * inputs + c, r);
    const float shift = static_cast<float>(r % 5 - 2) / 4.0f;
    if (index != 1) {
      layer->bias[r] = shift;
    } else {
      layer->gamma_inf[r] = static_cast<float>(r - 9) / 8.0f;
      layer->beta_inf[r] = shift;
    }
  }
  return layer;
}

}  // namespace

MultiLayerNNModel goldenModel(ActFn::ActFn actFn) {
  MultiLayerNNModel model;
  for (int i = 0; i < 4; ++i) {
    auto layer = layerOf(i, actFn);
    model.layers.push_back(layer.get());
    layer.release();
  }
  model.useSoftmax = true;
  return model;
}

MatrixXf finiteInputs(Index width) {
  MatrixXf inputs(width, kGoldenFrames);
  for (Index f = 0; f < kGoldenFrames; ++f) {
    for (Index i = 0; i < width; ++i) {
      inputs(i, f) = static_cast<float>((53 * i + 17 * f) % 201 - 100) / 64.0f;
    }
  }
  return inputs;
}

MatrixXf goldenInputs() {
  MatrixXf inputs = finiteInputs(kWidths[0]);
  inputs.col(1) *= std::ldexp(1.0f, -99);
  inputs(3, 2) = INFINITY;
  inputs.col(3) *= std::ldexp(1.0f, 40);
  return inputs;
}

}  // namespace mlnn::test
