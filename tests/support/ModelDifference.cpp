#include "tests/support/ModelDifference.h"

#include <algorithm>
#include <cstring>

namespace mlnn::test {
namespace {

bool sameBits(const float* a, const float* b, std::size_t count) {
  return count == 0 || std::memcmp(a, b, count * sizeof(float)) == 0;
}

bool sameCurve(const std::vector<float>& a, const std::vector<float>& b, Extent extent) {
  if (extent == Extent::kWhole && a.size() != b.size()) return false;
  return sameBits(a.data(), b.data(), std::min(a.size(), b.size()));
}

template <typename Dense>
bool sameArray(const Dense& a, const Dense& b, Extent extent) {
  if (a.rows() != b.rows() || a.cols() != b.cols()) return extent == Extent::kReadParts;
  return sameBits(a.data(), b.data(), static_cast<std::size_t>(a.size()));
}

std::string layerDifference(const NNLayer* a, const NNLayer* b, Extent extent) {
  if ((a == nullptr) != (b == nullptr)) return "missing";
  if (a == nullptr) return "";
  if (a->isBatchNorm != b->isBatchNorm) return "isBatchNorm";
  if (a->actFn != b->actFn) return "actFn";
  if (!sameArray(a->weights, b->weights, extent)) return "weights";
  if (!sameArray(a->bias, b->bias, extent)) return "bias";
  if (!sameArray(a->gamma, b->gamma, extent)) return "gamma";
  if (!sameArray(a->beta, b->beta, extent)) return "beta";
  if (!sameArray(a->gamma_inf, b->gamma_inf, extent)) return "gamma_inf";
  if (!sameArray(a->beta_inf, b->beta_inf, extent)) return "beta_inf";
  return "";
}

std::string stackDifference(const std::vector<NNLayer*>& a, const std::vector<NNLayer*>& b,
                            Extent extent) {
  if (extent == Extent::kWhole && a.size() != b.size()) return "layers.size()";
  for (std::size_t i = 0; i < std::min(a.size(), b.size()); ++i) {
    const std::string difference = layerDifference(a[i], b[i], extent);
    if (!difference.empty()) return "layers[" + std::to_string(i) + "]: " + difference;
  }
  return "";
}

}  // namespace

std::string firstDifference(const MultiLayerNNModel& a, const MultiLayerNNModel& b, Extent extent) {
  if (std::memcmp(&a.featureDesc, &b.featureDesc, sizeof a.featureDesc) != 0) {
    return "featureDesc";
  }
  if (!sameCurve(a.loss, b.loss, extent)) return "loss";
  if (!sameCurve(a.accuracy, b.accuracy, extent)) return "accuracy";
  if (a.props != b.props) return "props";
  if (a.notes.lines != b.notes.lines) return "notes";
  if (!sameArray(a.deltasNorm.minvals, b.deltasNorm.minvals, Extent::kWhole)) return "minvals";
  if (!sameArray(a.deltasNorm.normvals, b.deltasNorm.normvals, Extent::kWhole)) {
    return "normvals";
  }
  if (a.useSoftmax != b.useSoftmax) return "useSoftmax";
  return stackDifference(a.layers, b.layers, extent);
}

}  // namespace mlnn::test
