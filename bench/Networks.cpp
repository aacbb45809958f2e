#include "bench/Networks.h"

#include <algorithm>
#include <cmath>
#include <random>

namespace mlnn::bench {

const std::vector<Shape> kShapes = {
    {"S", {120, 64, 64, 12}},
    {"M", {600, 256, 256, 256, 40}},
    {"M-odd", {599, 255, 255, 255, 39}},
    {"L", {1800, 512, 512, 512, 512, 512, 2000}},
    {"L-odd", {1799, 511, 511, 511, 511, 511, 1999}},
    {"XL", {1800, 2048, 2048, 2048, 2048, 2048, 6000}},
};

Network makeNetwork(const Shape& shape, Hidden hidden) {
  std::mt19937 random(1);
  Network network{shape.name, hidden, {}};
  for (std::size_t i = 1; i < shape.widths.size(); ++i) {
    DenseLayer layer{shape.widths[i], shape.widths[i - 1], {}, {}};
    const float size = 1.5f / std::sqrt(static_cast<float>(layer.cols));
    std::uniform_real_distribution<float> value(-size, size);
    layer.weights.resize(layer.rows * layer.cols);
    for (float& weight : layer.weights) weight = value(random);
    layer.bias.assign(layer.rows, 0.01f);
    network.layers.push_back(std::move(layer));
  }
  return network;
}

std::vector<float> makeInputs(const Network& network, std::size_t frames) {
  std::mt19937 random(2);
  std::uniform_real_distribution<float> value(-1, 1);
  std::vector<float> inputs(network.inputs() * frames);
  for (float& input : inputs) input = value(random);
  return inputs;
}

std::vector<double> exactOutputs(const Network& network, const float* x) {
  std::vector<double> values(x, x + network.inputs());
  for (const DenseLayer& layer : network.layers) {
    std::vector<double> sums(layer.bias.begin(), layer.bias.end());
    for (std::size_t c = 0; c < layer.cols; ++c) {
      const float* column = layer.weights.data() + c * layer.rows;
      for (std::size_t r = 0; r < layer.rows; ++r) sums[r] += double{column[r]} * values[c];
    }
    values = std::move(sums);
    if (&layer == &network.layers.back()) break;
    for (double& v : values) {
      v = network.hidden == Hidden::kRelu ? std::max(v, 0.0) : 1 / (1 + std::exp(-v));
    }
  }
  const double largest = *std::max_element(values.begin(), values.end());
  double sum = 0;
  for (double& v : values) sum += v = std::exp(v - largest);
  for (double& v : values) v /= sum;
  return values;
}

double errorOf(const std::vector<double>& exact, const float* found) {
  double error = 0;
  for (std::size_t i = 0; i < exact.size(); ++i) {
    error = std::max(error, std::abs(exact[i] - double{found[i]}));
  }
  return error / *std::max_element(exact.begin(), exact.end());
}

double secondsOf(Contender& contender, const float* x, float* y, std::size_t repeats) {
  contender.run(x, y);
  const double start = secondsOfThisThread();
  for (std::size_t i = 0; i < repeats; ++i) contender.run(x, y);
  return secondsOfThisThread() - start;
}

double medianOf(std::vector<double> values) {
  const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
  std::nth_element(values.begin(), middle, values.end());
  return *middle;
}

}  // namespace mlnn::bench
