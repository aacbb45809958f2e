#include "analysis/ModelAverage.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <utility>

#include "analysis/ModelCopy.h"
#include "layers/LayerArrays.h"
#include "text/Numbers.h"

namespace mlnn {
namespace {

constexpr std::size_t kValuesBetweenCalls = std::size_t{1} << 20;

struct Values {
  float* data;
  std::size_t count;
};

Values valuesOf(Eigen::MatrixXf& m) { return {m.data(), static_cast<std::size_t>(m.size())}; }
Values valuesOf(Eigen::VectorXf& v) { return {v.data(), static_cast<std::size_t>(v.size())}; }

// The arrays of all layers that NNLayer::operator+= adds. The batch-norm vectors that a plain
// layer was folded from are not among them.
std::vector<Values> averagedArrays(const MultiLayerNNModel& model) {
  std::vector<Values> arrays;
  for (NNLayer* layer : model.layers) {
    arrays.push_back(valuesOf(layer->weights));
    for (const LayerVector& vector : kLayerVectors) {
      if (layer->isBatchNorm || vector.isUsedBy(*layer))
        arrays.push_back(valuesOf(vector.of(*layer)));
    }
  }
  return arrays;
}

uint32_t bitsOf(float value) {
  uint32_t bits;
  std::memcpy(&bits, &value, sizeof bits);
  return bits;
}

bool sameBits(float a, float b) { return bitsOf(a) == bitsOf(b); }

// Calls `use(a, b, index)` for each pair of parameters of two models that have a mean.
template <typename Use>
void forEachPair(const MultiLayerNNModel& a, const MultiLayerNNModel& b, const Watch& watch,
                 Use use) {
  const std::vector<Values> inA = averagedArrays(a);
  const std::vector<Values> inB = averagedArrays(b);
  std::size_t index = 0;
  for (std::size_t i = 0; i < inA.size(); ++i) {
    for (std::size_t k = 0; k < inA[i].count; ++k) {
      if (k % kValuesBetweenCalls == 0) tell(watch, 0);
      use(inA[i].data[k], inB[i].data[k], index++);
    }
  }
}

std::size_t parameterCount(const MultiLayerNNModel& model) {
  std::size_t count = 0;
  for (const Values& values : averagedArrays(model)) count += values.count;
  return count;
}

// "a plain layer of 600 x 64, sigmoid": inputs and outputs, as in a model's description.
std::string describe(const NNLayer& layer) {
  return std::string(layer.isBatchNorm ? "a batch-norm" : "a plain") + " layer of " +
         std::to_string(layer.weights.cols()) + " x " + std::to_string(layer.weights.rows()) +
         ", " + ActFn::actFnToString(layer.actFn);
}

// In what a layer differs from the one in its place; "" when in nothing. An image's batch-norm
// layer may have a bias that it does not use, or none, which its description does not tell.
std::string whyNoMean(const NNLayer& first, const NNLayer& second) {
  const std::string wanted = describe(first);
  const std::string found = describe(second);
  if (found != wanted) return "is " + found + " instead of " + wanted;
  if (first.bias.size() == second.bias.size()) return "";
  return "has " + counted(static_cast<std::size_t>(second.bias.size()), "bias value") +
         " instead of " + std::to_string(first.bias.size());
}

std::string onOrOff(bool on) { return on ? "on" : "off"; }

}  // namespace

std::string whyNoMean(const MultiLayerNNModel& first, const MultiLayerNNModel& second) {
  const std::size_t number = second.layers.size();
  if (number != first.layers.size()) {
    return "it has " + counted(number, "layer") + " instead of " +
           std::to_string(first.layers.size());
  }
  for (std::size_t i = 0; i < number; ++i) {
    const std::string why = whyNoMean(*first.layers[i], *second.layers[i]);
    if (!why.empty()) return "its layer " + std::to_string(i + 1) + " " + why;
  }
  if (second.useSoftmax == first.useSoftmax) return "";
  return "its softmax is " + onOrOff(second.useSoftmax) + " instead of " +
         onOrOff(first.useSoftmax);
}

std::vector<float> sharesOf(const std::vector<double>& weights) {
  // Divided by the largest first, so that their sum cannot overflow.
  const double largest = *std::max_element(weights.begin(), weights.end());
  double total = 0;
  for (const double weight : weights) total += weight / largest;
  std::vector<float> shares;
  shares.reserve(weights.size());
  for (const double weight : weights) {
    shares.push_back(static_cast<float>(weight / largest / total));
  }
  return shares;
}

void ModelAverage::add(MultiLayerNNModel model, float share, const Watch& watch) {
  if (isEmpty_) {
    MultiLayerNNModel sum = copyOf(model, watch);
    sum *= share;
    sum_ = std::move(sum);
    first_ = std::move(model);
    tell(watch, 0);
    agrees_.assign(parameterCount(first_), true);
    isEmpty_ = false;
    return;
  }
  forEachPair(first_, model, watch, [this](float first, float other, std::size_t i) {
    if (!sameBits(first, other)) agrees_[i] = false;
  });
  model *= share;
  tell(watch, 0);
  sum_ += model;
}

bool ModelAverage::allAgree() const {
  return std::all_of(agrees_.begin(), agrees_.end(), [](bool agrees) { return agrees; });
}

MultiLayerNNModel ModelAverage::take() {
  forEachPair(first_, sum_, {}, [this](float& first, float sum, std::size_t i) {
    if (!agrees_[i]) first = sum;
  });
  MultiLayerNNModel mean = std::move(first_);
  *this = ModelAverage();
  return mean;
}

}  // namespace mlnn
