#include "analysis/WeightForms.h"

#include <algorithm>
#include <cstddef>
#include <vector>

#include "analysis/LayerRanges.h"
#include "layers/NNLayerRecord.h"
#include "text/Numbers.h"

namespace mlnn {
namespace {

std::size_t sizeOf(int number) { return static_cast<std::size_t>(number); }

using AllWeights = std::vector<StoredWeights>;

AllWeights storedWeightsOf(const MultiLayerNNModel& model, const Watch& watch) {
  AllWeights all;
  for (const NNLayer* layer : model.layers) {
    all.push_back(storedWeights(*layer, watch));
    tell(watch, 1);
  }
  return all;
}

// The largest code, which no division rounds.
int largestCode(const RowScales& scales, const NNLayer& layer) {
  Eigen::VectorXf sizes = Eigen::VectorXf::Zero(layer.weights.rows());
  for (Eigen::Index c = 0; c < layer.weights.cols(); ++c) {
    sizes = sizes.cwiseMax(layer.weights.col(c).cwiseAbs());
  }
  int largest = 0;
  for (std::size_t r = 0; r < scales.values.size(); ++r) {
    if (scales.values[r] == 0) continue;
    const float size = sizes[static_cast<Eigen::Index>(r)];
    largest = std::max(largest, static_cast<int>(size / scales.values[r]));
  }
  return largest;
}

int bitsFor(int largestCode) {
  int bits = 2;
  while ((1 << (bits - 1)) - 1 < largestCode) ++bits;
  return bits;
}

uint64_t floatBytes(const NNLayer& layer) {
  return static_cast<uint64_t>(layer.weights.size()) * sizeof(float);
}

}  // namespace

StoredWeights storedWeights(const NNLayer& layer, const Watch& watch) {
  static constexpr const char* kForms[kNumWeightForms] = {"floats", "bytes", "half bytes",
                                                          "bytes by rows", "half bytes by rows"};
  const WeightsPlan plan = planRecord(layer, watch);
  StoredWeights stored{kForms[plan.form], weightsLength(plan, weightsOf(layer)), 0};
  if (hasRowScales(plan.form)) stored.rowBits = bitsFor(largestCode(plan.rowScales, layer));
  return stored;
}

const char* weightForm(const NNLayer& layer) { return storedWeights(layer).form; }

std::string weightForms(const MultiLayerNNModel& model, const Watch& watch) {
  const AllWeights layers = storedWeightsOf(model, watch);
  const std::string text =
      saidOfLayers(layers.size(), [&](std::size_t i) { return std::string(layers[i].form); });
  return text.empty() ? "none" : text;
}

std::string quantizedText(const MultiLayerNNModel& model, const Watch& watch) {
  const AllWeights layers = storedWeightsOf(model, watch);
  const std::string text = saidOfLayers(layers.size(), [&](std::size_t i) {
    return layers[i].rowBits == 0 ? "" : counted(sizeOf(layers[i].rowBits), "bit") + " a weight";
  });
  if (text.empty()) return text;
  uint64_t bytes = 0;
  uint64_t asFloats = 0;
  for (std::size_t i = 0; i < layers.size(); ++i) {
    if (layers[i].rowBits == 0) continue;
    bytes += layers[i].bytes;
    asFloats += floatBytes(*model.layers[i]);
  }
  const double share = 100 * static_cast<double>(bytes) / static_cast<double>(asFloats);
  return text + ", and a scale a row: " + std::to_string(bytes) + " bytes in place of " +
         std::to_string(asFloats) + ", " + generalNumber(share, 3) + " %";
}

}  // namespace mlnn
