#include "layers/NNLayer.h"

#include <algorithm>
#include <random>

#include "features/EigenAssign.h"
#include "layers/LayerArrays.h"
#include "layers/Report.h"
#include "layers/WatchedLayer.h"

namespace {

// The one random source behind NNLayer's initialising constructor.
std::mt19937& randomSource() {
  static std::mt19937 source;
  return source;
}

// Calls fill(begin, end) for some values at a time, which take less than some thousandths of a
// second.
template <typename Fill>
void fillInPieces(Eigen::MatrixXf& values, const mlnn::Watch& watch, Fill fill) {
  constexpr Eigen::Index kPiece = Eigen::Index{1} << 15;
  for (Eigen::Index begin = 0; begin < values.size(); begin += kPiece) {
    fill(begin, std::min(begin + kPiece, values.size()));
    mlnn::tell(watch, 0);
  }
}

// A fresh distribution for each layer, so that what a layer gets depends on the
// source alone and not on a value that an earlier layer left over.
void fillNormal(Eigen::MatrixXf& values, float standardDeviation, const mlnn::Watch& watch) {
  std::normal_distribution<float> standardNormal;
  fillInPieces(values, watch, [&](Eigen::Index begin, Eigen::Index end) {
    for (Eigen::Index i = begin; i < end; ++i) {
      values.data()[i] = standardDeviation * standardNormal(randomSource());
    }
  });
}

bool sameWeightsShape(const NNLayer& a, const NNLayer& b) {
  return a.weights.rows() == b.weights.rows() && a.weights.cols() == b.weights.cols();
}

// Whether operator+= adds the vector: an image's batch-norm layer may have a bias too.
bool isAdded(const mlnn::LayerVector& vector, const NNLayer& layer) {
  return layer.isBatchNorm || vector.isUsedBy(layer);
}

// Whether the vectors that two layers of one kind would add have the same lengths.
bool sameVectorLengths(const NNLayer& a, const NNLayer& b) {
  for (const mlnn::LayerVector& vector : mlnn::kLayerVectors) {
    if (isAdded(vector, a) && vector.of(a).size() != vector.of(b).size()) return false;
  }
  return true;
}

void printShapesDiffer(const NNLayer& a, const NNLayer& b) {
  mlnn::report({"ERROR: NNLayer::operator+=: layer shapes differ (", a.weights.rows(), "x",
                a.weights.cols(), " != ", b.weights.rows(), "x", b.weights.cols(), ")"});
}

void printKindsDiffer(const NNLayer& target) {
  mlnn::report({"ERROR: NNLayer::operator+=: cannot add ",
                target.isBatchNorm ? "a plain layer to a batch-norm layer"
                                   : "a batch-norm layer to a plain layer"});
}

}  // namespace

NNLayer::NNLayer() : actFn(ActFn::linear), isBatchNorm(false) {}

NNLayer::NNLayer(int numInputs, int numOutputs, bool batchNorm)
    : bias(Eigen::VectorXf::Zero(numOutputs)),
      weights(Eigen::MatrixXf::Zero(numOutputs, numInputs)),
      actFn(ActFn::linear),
      isBatchNorm(batchNorm) {
  if (!batchNorm) return;
  for (const mlnn::LayerVector& vector : mlnn::kLayerVectors) {
    if (vector.inBatchNorm) mlnn::assignZeros(vector.of(*this), numOutputs);
  }
}

NNLayer::NNLayer(int numInputs, int numOutputs, float initScale, bool batchNorm)
    : NNLayer(mlnn::randomLayer(numInputs, numOutputs, initScale, batchNorm, {})) {}

NNLayer::NNLayer(const NNLayer& other) = default;
NNLayer::NNLayer(NNLayer&& other) noexcept = default;
NNLayer::~NNLayer() = default;
NNLayer& NNLayer::operator=(NNLayer&& other) noexcept = default;

NNLayer& NNLayer::operator=(const NNLayer& other) {
  mlnn::assign(weights, other.weights);
  for (const mlnn::LayerVector& vector : mlnn::kLayerVectors) {
    mlnn::assign(vector.of(*this), vector.of(other));
  }
  actFn = other.actFn;
  isBatchNorm = other.isBatchNorm;
  return *this;
}

void NNLayer::seedRandom(uint32_t seed) { randomSource().seed(seed); }

NNLayer& NNLayer::operator+=(const NNLayer& other) {
  if (!sameWeightsShape(*this, other)) {
    printShapesDiffer(*this, other);
    return *this;
  }
  if (isBatchNorm != other.isBatchNorm) {
    printKindsDiffer(*this);
    return *this;
  }
  if (!sameVectorLengths(*this, other)) {
    printShapesDiffer(*this, other);
    return *this;
  }
  weights += other.weights;
  for (const mlnn::LayerVector& vector : mlnn::kLayerVectors) {
    if (isAdded(vector, *this)) vector.of(*this) += vector.of(other);
  }
  return *this;
}

NNLayer& NNLayer::operator*=(float factor) {
  mlnn::forEachArray(*this, [factor](const char*, auto& values) { values *= factor; });
  return *this;
}

void NNLayer::zeros() {
  mlnn::forEachArray(*this, [](const char*, auto& values) { values.setZero(); });
}

NNLayer mlnn::copyOf(const NNLayer& layer, const Watch& watch) {
  NNLayer copy;
  copy.weights.resize(layer.weights.rows(), layer.weights.cols());
  fillInPieces(copy.weights, watch, [&](Eigen::Index begin, Eigen::Index end) {
    std::copy_n(layer.weights.data() + begin, end - begin, copy.weights.data() + begin);
  });
  for (const LayerVector& vector : kLayerVectors) vector.of(copy) = vector.of(layer);
  copy.actFn = layer.actFn;
  copy.isBatchNorm = layer.isBatchNorm;
  return copy;
}

NNLayer mlnn::randomLayer(int numInputs, int numOutputs, float initScale, bool batchNorm,
                          const Watch& watch) {
  NNLayer layer(0, numOutputs, batchNorm);
  layer.weights.resize(numOutputs, numInputs);
  fillNormal(layer.weights, initScale, watch);
  layer.gamma.setOnes();
  return layer;
}
