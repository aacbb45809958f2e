// OpenBLAS and libxsmm: a matrix product each, and the library's activations after it.
#include <cblas.h>
#include <libxsmm.h>

#include <algorithm>

#include "bench/Contender.h"

namespace mlnn::bench {
namespace {

class LayerByLayer : public Contender {
 public:
  LayerByLayer(const Network& network, std::size_t frames) : network_(network), frames_(frames) {
    for (const DenseLayer& layer : network.layers) values_.emplace_back(layer.rows * frames);
  }

  void run(const float* x, float* y) override {
    for (std::size_t i = 0; i < network_.layers.size(); ++i) {
      float* to = i + 1 == network_.layers.size() ? y : values_[i].data();
      multiply(i, x, to);
      finishLayer(network_, i, frames_, to);
      x = to;
    }
  }

 protected:
  virtual void multiply(std::size_t layer, const float* x, float* y) = 0;

  const DenseLayer& at(std::size_t layer) const { return network_.layers[layer]; }
  std::size_t frames() const { return frames_; }

 private:
  const Network
      network_;  // a copy, as the other contenders have one: none finds it in a cache for another
  std::size_t frames_;
  std::vector<Floats> values_;
};

class OpenBlas final : public LayerByLayer {
 public:
  OpenBlas(const Network& network, std::size_t frames) : LayerByLayer(network, frames) {
    openblas_set_num_threads(1);
  }

 private:
  void multiply(std::size_t layer, const float* x, float* y) override {
    const auto m = static_cast<blasint>(at(layer).rows);
    const auto k = static_cast<blasint>(at(layer).cols);
    const auto n = static_cast<blasint>(frames());
    const float* w = at(layer).weights.data();
    if (n == 1) {
      cblas_sgemv(CblasColMajor, CblasNoTrans, m, k, 1, w, m, x, 1, 0, y, 1);
    } else {
      cblas_sgemm(CblasColMajor, CblasNoTrans, CblasNoTrans, m, n, k, 1, w, m, x, k, 0, y, m);
    }
  }
};

// Calls kernels that libxsmm generates for blocks of rows x frames x inputs.
class Xsmm final : public LayerByLayer {
 public:
  Xsmm(const Network& network, std::size_t frames, std::size_t rowBlock, std::size_t frameBlock,
       std::size_t inputBlock)
      : LayerByLayer(network, frames),
        rowBlock_(rowBlock),
        frameBlock_(frameBlock),
        inputBlock_(inputBlock) {}

 private:
  void multiply(std::size_t layer, const float* x, float* y) override {
    const std::size_t rows = at(layer).rows;
    const std::size_t cols = at(layer).cols;
    for (std::size_t k = 0; k < cols; k += inputBlock_) {
      for (std::size_t m = 0; m < rows; m += rowBlock_) {
        for (std::size_t n = 0; n < frames(); n += frameBlock_) {
          block(layer, x, y, m, n, k);
        }
      }
    }
  }

  void block(std::size_t layer, const float* x, float* y, std::size_t m, std::size_t n,
             std::size_t k) {
    const std::size_t rows = at(layer).rows;
    const std::size_t cols = at(layer).cols;
    const auto lda = static_cast<libxsmm_blasint>(rows);
    const auto ldb = static_cast<libxsmm_blasint>(cols);
    const float alpha = 1;
    const float beta = k == 0 ? 0 : 1;
    const libxsmm_smmfunction multiplyBlock =
        libxsmm_smmdispatch(static_cast<libxsmm_blasint>(std::min(rowBlock_, rows - m)),
                            static_cast<libxsmm_blasint>(std::min(frameBlock_, frames() - n)),
                            static_cast<libxsmm_blasint>(std::min(inputBlock_, cols - k)), &lda,
                            &ldb, &lda, &alpha, &beta, nullptr, nullptr);
    multiplyBlock(at(layer).weights.data() + m + k * rows, x + k + n * cols, y + m + n * rows);
  }

  std::size_t rowBlock_;
  std::size_t frameBlock_;
  std::size_t inputBlock_;
};

constexpr std::size_t kWhole = std::size_t{1} << 30;

}  // namespace

ContenderPtr makeOpenBlas(const Network& network, std::size_t frames) {
  return std::make_unique<OpenBlas>(network, frames);
}

ContenderPtr makeXsmm(const Network& network, std::size_t frames) {
  return std::make_unique<Xsmm>(network, frames, kWhole, kWhole, kWhole);
}

ContenderPtr makeXsmmBlocked(const Network& network, std::size_t frames) {
  return std::make_unique<Xsmm>(network, frames, 64, 48, 256);
}

}  // namespace mlnn::bench
