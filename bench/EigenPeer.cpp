// Eigen as a peer. Compiled twice: as a distribution builds it (baseline instructions), and
// for this processor. MLNN_EIGEN_BUILD names the namespace of the build.
#include <Eigen/Core>

#include "bench/Contender.h"

namespace mlnn::bench::MLNN_EIGEN_BUILD {
namespace {

using Matrix = Eigen::MatrixXf;

class EigenPeer final : public Contender {
 public:
  EigenPeer(const Network& network, std::size_t frames)
      : network_(network), frames_(static_cast<Eigen::Index>(frames)) {
    for (const DenseLayer& layer : network.layers) {
      const auto rows = static_cast<Eigen::Index>(layer.rows);
      const auto cols = static_cast<Eigen::Index>(layer.cols);
      weights_.emplace_back(Eigen::Map<const Matrix>(layer.weights.data(), rows, cols));
      bias_.emplace_back(Eigen::Map<const Eigen::VectorXf>(layer.bias.data(), rows));
      values_.emplace_back(rows, frames_);
    }
  }

  void run(const float* x, float* y) override {
    multiply(0, Eigen::Map<const Matrix>(x, weights_[0].cols(), frames_));
    for (std::size_t i = 1; i < weights_.size(); ++i) {
      activate(values_[i - 1]);
      multiply(i, values_[i - 1]);
    }
    Matrix& last = values_.back();
    for (Eigen::Index t = 0; t < frames_; ++t) {
      auto column = last.col(t).array();
      column = (column - column.maxCoeff()).exp();
      column /= column.sum();
    }
    Eigen::Map<Matrix>(y, last.rows(), last.cols()) = last;
  }

 private:
  template <typename Input>
  void multiply(std::size_t layer, const Input& x) {
    if (frames_ == 1) {
      values_[layer].col(0).noalias() = weights_[layer] * x.col(0);
    } else {
      values_[layer].noalias() = weights_[layer] * x;
    }
    values_[layer].colwise() += bias_[layer];
  }

  void activate(Matrix& values) const {
    if (network_.hidden == Hidden::kRelu) {
      values = values.cwiseMax(0.0f);
    } else {
      values = values.array().logistic();
    }
  }

  const Network& network_;
  Eigen::Index frames_;
  std::vector<Matrix> weights_;
  std::vector<Eigen::VectorXf> bias_;
  std::vector<Matrix> values_;
};

}  // namespace

ContenderPtr makeEigen(const Network& network, std::size_t frames) {
  return std::make_unique<EigenPeer>(network, frames);
}

}  // namespace mlnn::bench::MLNN_EIGEN_BUILD
