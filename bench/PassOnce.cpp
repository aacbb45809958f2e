// Evaluates a number of frames, one a call, and does nothing else that depends on their number:
// what bench/count-instructions counts on an emulated processor. Usage: PassOnce floats|integers
// FRAMES
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "inference/IntegerFwdPass.h"
#include "inference/NNFwdPassFromFile.h"
#include "layers/NNLayer.h"
#include "model/MultiLayerNNModel.h"

namespace {

constexpr int kWidths[] = {600, 128, 128, 40};

// Weights of 8 bits, with one scale.
std::unique_ptr<NNLayer> layerOf(int inputs, int outputs, ActFn::ActFn actFn) {
  auto layer = std::make_unique<NNLayer>(inputs, outputs, false);
  unsigned state = 1;
  for (Eigen::Index i = 0; i < layer->weights.size(); ++i) {
    state = state * 1664525U + 1013904223U;
    layer->weights.data()[i] = static_cast<float>(static_cast<int>(state >> 24) % 255 - 127) / 2048;
  }
  layer->bias.setConstant(0.01f);
  layer->actFn = actFn;
  return layer;
}

void build(MultiLayerNNModel& model) {
  for (int i = 0; i < 3; ++i) {
    const ActFn::ActFn actFn = i == 2 ? ActFn::linear : ActFn::sigmoid;
    model.layers.push_back(layerOf(kWidths[i], kWidths[i + 1], actFn).release());
  }
}

std::unique_ptr<FwdPass> passOf(const MultiLayerNNModel& model, bool integers) {
  if (integers) return mlnn::IntegerFwdPass::create(model);
  return std::make_unique<NNFwdPassFromFile>(model);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) return 2;
  MultiLayerNNModel model;
  build(model);
  const std::unique_ptr<FwdPass> pass = passOf(model, std::strcmp(argv[1], "integers") == 0);
  Eigen::MatrixXf inputs(kWidths[0], 1);
  for (Eigen::Index i = 0; i < inputs.size(); ++i)
    inputs(i) = static_cast<float>(i % 64) / 64 - 0.5f;
  Eigen::MatrixXf outputs;
  for (int frame = std::atoi(argv[2]); frame > 0; --frame) {
    if (pass->evaluate(inputs, outputs) != 0) return 1;
  }
  std::printf("%s: %g\n", argv[1], static_cast<double>(outputs(0)));
  return 0;
}
