#include "tests/support/TestModels.h"

#include <cstring>
#include <random>

namespace mlnn::test {
namespace {

using ::testing::AssertionFailure;
using ::testing::AssertionResult;
using ::testing::AssertionSuccess;

void fillNew(Eigen::VectorXf& values, int length, uint32_t seed) {
  values.resize(length);
  fillValues(values, seed);
}

void fillBatchNormVectors(NNLayer& layer, int outputs, uint32_t seed) {
  fillNew(layer.gamma, outputs, seed + 2);
  fillNew(layer.beta, outputs, seed + 3);
  fillNew(layer.gamma_inf, outputs, seed + 4);
  fillNew(layer.beta_inf, outputs, seed + 5);
}

// The first failure of a list, or success.
AssertionResult firstFailure(const std::vector<std::pair<const char*, AssertionResult>>& results) {
  for (const auto& [what, result] : results) {
    if (!result) return AssertionFailure() << what << ": " << result.message();
  }
  return AssertionSuccess();
}

template <typename T>
AssertionResult equal(const T& a, const T& b) {
  return a == b ? AssertionSuccess() : AssertionFailure() << "differs";
}

AssertionResult sameFloats(const std::vector<float>& a, const std::vector<float>& b) {
  const auto view = [](const std::vector<float>& v) {
    return Eigen::Map<const Eigen::VectorXf>(v.data(), static_cast<Eigen::Index>(v.size()));
  };
  return sameBits(view(a), view(b));
}

}  // namespace

void fillValues(Eigen::Ref<Eigen::MatrixXf> values, uint32_t seed) {
  std::mt19937 source(seed);
  for (Eigen::Index c = 0; c < values.cols(); ++c) {
    for (Eigen::Index r = 0; r < values.rows(); ++r) {
      // An odd number of 24 bits over 2^24: exact in a float, and never 0.
      const auto numerator = static_cast<int32_t>((source() >> 8) | 1) - (1 << 23);
      values(r, c) = static_cast<float>(numerator) / static_cast<float>(1 << 23);
    }
  }
}

Eigen::MatrixXf someValues(Eigen::Index rows, Eigen::Index cols, uint32_t seed) {
  Eigen::MatrixXf values(rows, cols);
  fillValues(values, seed);
  return values;
}

NNLayer plainLayer(int inputs, int outputs, uint32_t seed) {
  NNLayer layer(inputs, outputs, false);
  fillValues(layer.weights, 100 * seed);
  fillValues(layer.bias, 100 * seed + 1);
  layer.actFn = ActFn::sigmoid;
  return layer;
}

NNLayer batchNormLayer(int inputs, int outputs, uint32_t seed) {
  NNLayer layer = plainLayer(inputs, outputs, seed);
  fillBatchNormVectors(layer, outputs, 100 * seed);
  layer.isBatchNorm = true;
  return layer;
}

NNLayer foldedLayer(int inputs, int outputs, uint32_t seed) {
  NNLayer layer = batchNormLayer(inputs, outputs, seed);
  layer.isBatchNorm = false;
  return layer;
}

NNLayer fewValuesLayer(int inputs, int outputs, int numValues) {
  NNLayer layer = plainLayer(inputs, outputs);
  const Eigen::MatrixXf values = someValues(numValues, 1, 7);
  for (Eigen::Index i = 0; i < layer.weights.size(); ++i) {
    layer.weights.data()[i] = values(i % numValues, 0);
  }
  return layer;
}

NNLayer untouchedLayer(int outputs, int inputs) {
  NNLayer layer;
  layer.weights.resize(outputs, inputs);
  for (int i = 0; i < 300; ++i) layer.weights.data()[i] = static_cast<float>(i);
  layer.weights.data()[0] = -0.0f;
  return layer;
}

MultiLayerNNModel modelOf(const std::vector<NNLayer>& layers) {
  MultiLayerNNModel model;
  for (const NNLayer& layer : layers) {
    auto copy = std::make_unique<NNLayer>(layer);
    model.layers.push_back(copy.get());
    copy.release();
  }
  return model;
}

MultiLayerNNModel imageModel() {
  MultiLayerNNModel model =
      modelOf({plainLayer(4, 3, 1), batchNormLayer(3, 5, 2), foldedLayer(5, 2, 3)});
  fillNew(model.deltasNorm.minvals, 120, 7);
  fillNew(model.deltasNorm.normvals, 120, 8);
  return model;
}

std::string normalisationLine(const std::string& array, const std::string& first,
                              const std::string& others) {
  std::string line = "# TRAIN rbm_train two words -deltas_norm_" + array + " " + first;
  for (int i = 1; i < MelDeltasNorm::kLength; ++i) line += "," + others;
  return line + "\n";
}

MultiLayerNNModel fullModel() {
  MultiLayerNNModel model = imageModel();
  DbnFeatureDescription& desc = model.featureDesc;
  desc.winSizeLeft = 5;
  desc.winSizeRight = 6;
  desc.lineKernelWidth = 9;
  desc.reserved = 0xAB;
  desc.useDeltas = true;
  desc.useLineKernels = true;
  model.loss = {3.5f, 2.25f};
  model.accuracy = {0.5f, 0.75f, 0.875f};
  model.props = {{"alpha", "1 2"}, {"beta", ""}};
  model.notes.lines = {"first note", "second note"};
  model.useSoftmax = false;
  return model;
}

AssertionResult sameBits(const Eigen::Ref<const Eigen::MatrixXf>& a,
                         const Eigen::Ref<const Eigen::MatrixXf>& b) {
  if (a.rows() != b.rows() || a.cols() != b.cols()) {
    return AssertionFailure() << "shapes differ: " << a.rows() << "x" << a.cols() << " and "
                              << b.rows() << "x" << b.cols();
  }
  if (a.size() == 0) return AssertionSuccess();  // there may be 2^31 columns
  for (Eigen::Index c = 0; c < a.cols(); ++c) {
    for (Eigen::Index r = 0; r < a.rows(); ++r) {
      if (std::memcmp(&a.coeffRef(r, c), &b.coeffRef(r, c), sizeof(float)) == 0) continue;
      return AssertionFailure() << "values at (" << r << ", " << c << ") differ: " << a(r, c)
                                << " and " << b(r, c);
    }
  }
  return AssertionSuccess();
}

AssertionResult sameLayer(const NNLayer& a, const NNLayer& b) {
  return firstFailure({{"weights", sameBits(a.weights, b.weights)},
                       {"bias", sameBits(a.bias, b.bias)},
                       {"gamma", sameBits(a.gamma, b.gamma)},
                       {"beta", sameBits(a.beta, b.beta)},
                       {"gamma_inf", sameBits(a.gamma_inf, b.gamma_inf)},
                       {"beta_inf", sameBits(a.beta_inf, b.beta_inf)},
                       {"actFn", equal(a.actFn, b.actFn)},
                       {"isBatchNorm", equal(a.isBatchNorm, b.isBatchNorm)}});
}

AssertionResult sameLayers(const MultiLayerNNModel& a, const MultiLayerNNModel& b) {
  if (a.layers.size() != b.layers.size()) {
    return AssertionFailure() << a.layers.size() << " and " << b.layers.size() << " layers";
  }
  for (std::size_t i = 0; i < a.layers.size(); ++i) {
    const NNLayer* x = a.layers[i];
    const NNLayer* y = b.layers[i];
    if (x == nullptr && y == nullptr) continue;
    if (x == nullptr || y == nullptr) return AssertionFailure() << "layer " << i << " is missing";
    const AssertionResult same = sameLayer(*x, *y);
    if (!same) return AssertionFailure() << "layer " << i << ": " << same.message();
  }
  return AssertionSuccess();
}

AssertionResult sameDescription(const DbnFeatureDescription& a, const DbnFeatureDescription& b) {
  if (std::memcmp(&a, &b, sizeof a) == 0) return AssertionSuccess();
  std::string left;
  std::string right;
  a.serialize(left);
  b.serialize(right);
  return AssertionFailure() << left << " and " << right;
}

AssertionResult sameButProps(const MultiLayerNNModel& a, const MultiLayerNNModel& b) {
  return firstFailure({{"layers", sameLayers(a, b)},
                       {"featureDesc", sameDescription(a.featureDesc, b.featureDesc)},
                       {"loss", sameFloats(a.loss, b.loss)},
                       {"accuracy", sameFloats(a.accuracy, b.accuracy)},
                       {"notes", equal(a.notes.lines, b.notes.lines)},
                       {"minvals", sameBits(a.deltasNorm.minvals, b.deltasNorm.minvals)},
                       {"normvals", sameBits(a.deltasNorm.normvals, b.deltasNorm.normvals)},
                       {"useSoftmax", equal(a.useSoftmax, b.useSoftmax)}});
}

AssertionResult sameModel(const MultiLayerNNModel& a, const MultiLayerNNModel& b) {
  return firstFailure({{"model", sameButProps(a, b)}, {"props", equal(a.props, b.props)}});
}

}  // namespace mlnn::test
