// This library as a contender, and the activations that it lends to peers.
#include <memory>

#include "bench/Contender.h"
#include "inference/Activation.h"
#include "inference/Kernels.h"
#include "inference/NNFwdPassFromFile.h"
#include "model/MultiLayerNNModel.h"

namespace mlnn::bench {
namespace {

ActFn::ActFn activationOf(const Network& network, std::size_t layer) {
  if (layer + 1 == network.layers.size()) return ActFn::linear;
  return network.hidden == Hidden::kRelu ? ActFn::relu : ActFn::sigmoid;
}

class Mlnn final : public Contender {
 public:
  Mlnn(const Network& network, std::size_t frames)
      : pass_(model_),
        inputs_(static_cast<Eigen::Index>(network.inputs())),
        frames_(static_cast<Eigen::Index>(frames)) {
    for (std::size_t i = 0; i < network.layers.size(); ++i) {
      const DenseLayer& layer = network.layers[i];
      auto added = std::make_unique<NNLayer>(static_cast<int>(layer.cols),
                                             static_cast<int>(layer.rows), false);
      std::copy(layer.weights.begin(), layer.weights.end(), added->weights.data());
      std::copy(layer.bias.begin(), layer.bias.end(), added->bias.data());
      added->actFn = activationOf(network, i);
      model_.layers.push_back(added.get());
      added.release();
    }
  }

  // Peers write to the caller's memory straight away, so this copy is a handicap of ours.
  void run(const float* x, float* y) override {
    pass_.evaluate(Eigen::Map<const Eigen::MatrixXf>(x, inputs_, frames_), outputs_);
    std::copy(outputs_.data(), outputs_.data() + outputs_.size(), y);
  }

 private:
  MultiLayerNNModel model_;
  NNFwdPassFromFile pass_;
  Eigen::MatrixXf outputs_;
  Eigen::Index inputs_;
  Eigen::Index frames_;
};

}  // namespace

ContenderPtr makeMlnn(const Network& network, std::size_t frames) {
  return std::make_unique<Mlnn>(network, frames);
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
