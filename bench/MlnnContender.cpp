// This library as a contender, and the activations that it lends to peers.
#include <cstdio>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "bench/Contender.h"
#include "inference/CodedFwdPass.h"
#include "inference/ImageFwdPass.h"
#include "inference/IntegerFwdPass.h"
#include "inference/NNFwdPassFromFile.h"
#include "inference/kernels/Activation.h"
#include "inference/kernels/KernelChoice.h"
#include "inference/kernels/Kernels.h"
#include "layers/Messages.h"
#include "model/MultiLayerNNModel.h"
#include "model/RowQuantization.h"

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
  // The pass reads the weights of the model, unless that is null.
  Mlnn(std::size_t frames, std::unique_ptr<MultiLayerNNModel> model, std::unique_ptr<FwdPass> pass)
      : model_(std::move(model)),
        pass_(std::move(pass)),
        frames_(static_cast<std::ptrdiff_t>(frames)) {}

  void run(const float* x, float* y) override {
    pass_->evaluate(InputFrames(x, pass_->numInputs(), frames_),
                    OutputFrames(y, pass_->numOutputs(), frames_));
  }

 private:
  std::unique_ptr<MultiLayerNNModel> model_;
  std::unique_ptr<FwdPass> pass_;
  std::ptrdiff_t frames_;
};

// Another contender with the loops in one shape.
class OfShape final : public Contender {
 public:
  OfShape(ContenderPtr contender, const KernelShape& shape)
      : contender_(std::move(contender)), shape_(shape) {}

  void run(const float* x, float* y) override {
    fixKernelShape(&shape_);
    contender_->run(x, y);
    fixKernelShape(nullptr);
  }

 private:
  ContenderPtr contender_;
  const KernelShape& shape_;
};

// The network with the model's parameters in place of its own.
Network withParametersOf(const MultiLayerNNModel& model, Network network) {
  for (std::size_t i = 0; i < network.layers.size(); ++i) {
    const NNLayer& layer = *model.layers[i];
    std::copy(layer.weights.data(), layer.weights.data() + layer.weights.size(),
              network.layers[i].weights.begin());
    std::copy(layer.bias.data(), layer.bias.data() + layer.bias.size(),
              network.layers[i].bias.begin());
  }
  return network;
}

// An image in a file without a name, mapped as openFile maps those with one.
class MappedImage {
 public:
  explicit MappedImage(MultiLayerNNModel& model) {
    model.deltasNorm.allocIfNeeded();
    const auto length = static_cast<std::size_t>(model.binarySerializedLength());
    std::FILE* const file = std::tmpfile();
    std::vector<char> bytes(length);
    model.serializeBinary(bytes.data());
    const bool isWritten = file != nullptr &&
                           std::fwrite(bytes.data(), 1, length, file) == length &&
                           std::fflush(file) == 0;
    const CollectedMessages silence;
    if (isWritten) {
      const std::string name = "/proc/self/fd/" + std::to_string(fileno(file));
      isOpen_ = pass_->openFile(name.c_str()) == 0;
    }
    if (file != nullptr) std::fclose(file);
    if (!isOpen_) throw std::runtime_error("bench: cannot map an image");
  }
  const ImageFwdPass& pass() const { return *pass_; }

  // Lets it keep floats of codes.
  void prepare() { pass_->prepare(~std::size_t{0}); }

  // The pass itself, which keeps the mapping.
  std::unique_ptr<FwdPass> take() { return std::move(pass_); }

 private:
  std::unique_ptr<ImageFwdPass> pass_ = std::make_unique<ImageFwdPass>();
  bool isOpen_ = false;
};

}  // namespace

ContenderPtr makeMlnn(const Network& network, std::size_t frames) {
  auto model = modelOf(network);
  std::unique_ptr<FwdPass> pass(model->createFwdPass());
  return std::make_unique<Mlnn>(frames, std::move(model), std::move(pass));
}

ContenderPtr makeMlnnOfShape(const Network& network, std::size_t frames, const KernelShape& shape) {
  return std::make_unique<OfShape>(makeMlnn(network, frames), shape);
}

ContenderPtr makeMlnnWithThreads(const Network& network, std::size_t frames, int threads) {
  auto model = modelOf(network);
  std::unique_ptr<FwdPass> pass(model->createFwdPass());
  if (threads > 1) pass->setThreads(Threads::start(threads));
  return std::make_unique<Mlnn>(frames, std::move(model), std::move(pass));
}

ContenderPtr makeMlnnOf8Bits(const Network& network, std::size_t frames) {
  return std::make_unique<Mlnn>(frames, nullptr, CodedFwdPass::create(*modelOf(network), 8));
}

ContenderPtr makeMlnnOf4Bits(const Network& network, std::size_t frames) {
  return std::make_unique<Mlnn>(frames, nullptr, CodedFwdPass::create(*modelOf(network), 4));
}

ContenderPtr makeMlnnInIntegers(const Network& network, std::size_t frames) {
  return std::make_unique<Mlnn>(frames, nullptr, IntegerFwdPass::create(*modelOf(network)));
}

ContenderPtr makeMlnnInIntegersOfAnImage(const Network& network, std::size_t frames) {
  const auto model = modelOf(network);
  const MappedImage image(*model);
  return std::make_unique<Mlnn>(frames, nullptr, IntegerFwdPass::create(image.pass()));
}

ContenderPtr makeMlnnOfAnImage(const Network& network, std::size_t frames) {
  const auto model = modelOf(network);
  return std::make_unique<Mlnn>(frames, nullptr, MappedImage(*model).take());
}

ContenderPtr makeMlnnOfAPreparedImage(const Network& network, std::size_t frames) {
  const auto model = modelOf(network);
  MappedImage image(*model);
  image.prepare();
  return std::make_unique<Mlnn>(frames, nullptr, image.take());
}

Network reduced(const Network& network, int bits) {
  const auto model = modelOf(network);
  model->retainPrecisionBits(bits);
  return withParametersOf(*model, network);
}

Network quantized(const Network& network, int bits) {
  const auto model = modelOf(network);
  RowQuantization options;
  options.bits = bits;
  quantizeRows(*model, options);
  return withParametersOf(*model, network);
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
  const Kernels& kernels = bestKernels();
  // Every other frame first: the processor would wait where a vector touches the next frame.
  for (const std::size_t start : {0, 1}) {
    for (std::size_t f = start; f < frames; f += 2) kernels.softmax(y + f * outputs, outputs);
  }
}

}  // namespace mlnn::bench
