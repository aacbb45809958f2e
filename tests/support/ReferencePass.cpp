#include "tests/support/ReferencePass.h"

#include <algorithm>
#include <cmath>
#include <stdexcept>
#include <vector>

namespace mlnn::test {
namespace {

std::vector<double> layerResult(const NNLayer& layer, const std::vector<double>& x) {
  std::vector<double> y;
  for (Eigen::Index r = 0; r < layer.weights.rows(); ++r) {
    double sum = 0;
    for (std::size_t c = 0; c < x.size(); ++c) {
      sum += double{layer.weights(r, static_cast<Eigen::Index>(c))} * x[c];
    }
    const double affine = layer.isBatchNorm
                              ? double{layer.gamma_inf[r]} * sum + double{layer.beta_inf[r]}
                              : sum + double{layer.bias[r]};
    y.push_back(referenceActivation(layer.actFn, affine));
  }
  return y;
}

std::vector<double> softmax(std::vector<double> values) {
  const double largest = *std::max_element(values.begin(), values.end());
  double sum = 0;
  for (double& value : values) sum += value = std::exp(value - largest);
  for (double& value : values) value /= sum;
  return values;
}

}  // namespace

double referenceActivation(ActFn::ActFn fn, double x) {
  switch (fn) {
    case ActFn::linear:
      return x;
    case ActFn::sigmoid:
      return 1 / (1 + std::exp(-x));
    case ActFn::tanh:
      return std::tanh(x);
    case ActFn::relu:
      return std::max(x, 0.0);
    case ActFn::leaky_relu:
      return x >= 0 ? x : 0.01 * x;
    case ActFn::elu:
      return x >= 0 ? x : std::expm1(x);
    case ActFn::softplus:
      return x > 700 ? x : std::log1p(std::exp(x));
    case ActFn::silu:
      return x / (1 + std::exp(-x));
  }
  throw std::invalid_argument("not an activation");
}

Eigen::MatrixXd referencePass(const MultiLayerNNModel& model, const Eigen::MatrixXf& inputs) {
  Eigen::MatrixXd outputs(model.numOutputs(), inputs.cols());
  for (Eigen::Index t = 0; t < inputs.cols(); ++t) {
    std::vector<double> x(inputs.col(t).begin(), inputs.col(t).end());
    for (const NNLayer* layer : model.layers) x = layerResult(*layer, x);
    if (model.useSoftmax) x = softmax(x);
    std::copy(x.begin(), x.end(), outputs.col(t).begin());
  }
  return outputs;
}

}  // namespace mlnn::test
