// This library as a contender, and the activations that it lends to peers.
#include <memory>

#include "bench/Contender.h"
#include "inference/Activation.h"
#include "inference/CodedFwdPass.h"
#include "inference/Kernels.h"
#include "inference/NNFwdPassFromFile.h"
#include "model/MultiLayerNNModel.h"

namespace mlnn::bench {
namespace {

ActFn::ActFn activationOf(const Network& network, std::size_t layer) {
  if (layer + 1 == network.layers.size()) return ActFn::linear;
  return network.hidden == Hidden::kRelu ? ActFn::relu : ActFn::sigmoid;
}

std::unique_ptr<MultiLayerNNModel> modelOf(const Network& network) {
  auto model = std::make_unique<MultiLayerNNModel>();
  for (std::size_t i = 0; i < network.layers.size(); ++i) {
    const DenseLayer& layer = network.layers[i];
    auto added = std::make_unique<NNLayer>(static_cast<int>(layer.cols),
                                           static_cast<int>(layer.rows), false);
    std::copy(layer.weights.begin(), layer.weights.end(), added->weights.data());
    std::copy(layer.bias.begin(), layer.bias.end(), added->bias.data());
    added->actFn = activationOf(network, i);
    model->layers.push_back(added.get());
    added.release();
  }
  return model;
}

class Mlnn final : public Contender {
 public:
  // Bits: 0 for the model itself, of which the pass reads the weights.
  Mlnn(const Network& network, std::size_t frames, int bits)
      : model_(modelOf(network)), frames_(static_cast<std::ptrdiff_t>(frames)) {
    if (bits == 0) {
      pass_.reset(model_->createFwdPass());
    } else {
      pass_ = CodedFwdPass::create(*model_, bits);
      model_.reset();
    }
  }

  void run(const float* x, float* y) override {
    pass_->evaluate(InputFrames(x, pass_->numInputs(), frames_),
                    OutputFrames(y, pass_->numOutputs(), frames_));
  }

 private:
  std::unique_ptr<MultiLayerNNModel> model_;
  std::unique_ptr<FwdPass> pass_;
  std::ptrdiff_t frames_;
};

}  // namespace

ContenderPtr makeMlnn(const Network& network, std::size_t frames) {
  return std::make_unique<Mlnn>(network, frames, 0);
}

ContenderPtr makeMlnnOf8Bits(const Network& network, std::size_t frames) {
  return std::make_unique<Mlnn>(network, frames, 8);
}

ContenderPtr makeMlnnOf4Bits(const Network& network, std::size_t frames) {
  return std::make_unique<Mlnn>(network, frames, 4);
}

Network reduced(const Network& network, int bits) {
  const auto model = modelOf(network);
  model->retainPrecisionBits(bits);
  Network result = network;
  for (std::size_t i = 0; i < result.layers.size(); ++i) {
    const NNLayer& layer = *model->layers[i];
    std::copy(layer.weights.data(), layer.weights.data() + layer.weights.size(),
              result.layers[i].weights.begin());
    std::copy(layer.bias.data(), layer.bias.data() + layer.bias.size(),
              result.layers[i].bias.begin());
  }
  return result;
}

void finishLayer(const Network& network, std::size_t layer, std::size_t frames, float* y) {
  const DenseLayer& dense = network.layers[layer];
  for (std::size_t f = 0; f < frames; ++f) {
    float* column = y + f * dense.rows;
    for (std::size_t r = 0; r < dense.rows; ++r) column[r] += dense.bias[r];
  }
  bestKernels().activate(activationOf(network, layer), y, frames * dense.rows);
  if (layer + 1 == network.layers.size()) applySoftmaxes(dense.rows, frames, y);
}

void applySoftmaxes(std::size_t outputs, std::size_t frames, float* y) {
  for (std::size_t f = 0; f < frames; ++f) bestKernels().softmax(y + f * outputs, outputs);
}

}  // namespace mlnn::bench
