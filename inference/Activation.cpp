#include "inference/Activation.h"

#include <cmath>

namespace {

constexpr float kLeakyReluSlope = 0.01f;

// Both forms take exp of a value that is not positive, which cannot overflow.
float sigmoid(float x) {
  if (x >= 0) return 1 / (1 + std::exp(-x));
  const float e = std::exp(x);
  return e / (1 + e);
}

// Written so that NaN fails the comparison and is passed on.
float relu(float x) { return x < 0 ? 0.0f : x; }

float leakyRelu(float x) { return x < 0 ? kLeakyReluSlope * x : x; }

float elu(float x) { return x < 0 ? std::expm1(x) : x; }

// log(1 + exp(x)) without overflow.
float softplus(float x) { return relu(x) + std::log1p(std::exp(-std::abs(x))); }

// The limit at minus infinity is 0, where the product would be NaN.
float silu(float x) { return std::isinf(x) && x < 0 ? -0.0f : x * sigmoid(x); }

float hyperbolicTangent(float x) { return std::tanh(x); }

}  // namespace

void mlnn::applyActivation(ActFn::ActFn fn, Eigen::Ref<Eigen::VectorXf> values) {
  const auto apply = [&values](float (*function)(float)) {
    for (Eigen::Index i = 0; i < values.size(); ++i) values[i] = function(values[i]);
  };
  switch (fn) {
    case ActFn::linear:
      return;
    case ActFn::sigmoid:
      return apply(sigmoid);
    case ActFn::tanh:
      return apply(hyperbolicTangent);
    case ActFn::relu:
      return apply(relu);
    case ActFn::leaky_relu:
      return apply(leakyRelu);
    case ActFn::elu:
      return apply(elu);
    case ActFn::softplus:
      return apply(softplus);
    case ActFn::silu:
      return apply(silu);
  }
}

void mlnn::applySoftmax(Eigen::Ref<Eigen::VectorXf> values) {
  if (values.size() == 0) return;
  const float largest = values.maxCoeff();
  float sum = 0;
  for (Eigen::Index i = 0; i < values.size(); ++i) {
    values[i] = std::exp(values[i] - largest);
    sum += values[i];
  }
  values /= sum;
}
