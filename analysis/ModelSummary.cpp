#include "analysis/ModelSummary.h"

#include <string>

#include "layers/LayerArrays.h"

namespace mlnn {
namespace {

template <typename Values>
std::size_t length(const Values& values) {
  return static_cast<std::size_t>(values.size());
}

std::size_t bytesOf(const NNLayer& layer) {
  std::size_t values = 0;
  forEachArray(layer, [&values](const char*, const auto& array) { values += length(array); });
  return sizeof(NNLayer) + values * sizeof(float);
}

// What a model takes beside its layers.
std::size_t bytesAround(const MultiLayerNNModel& model) {
  std::size_t sum = sizeof(MultiLayerNNModel);
  sum += (length(model.deltasNorm.minvals) + length(model.deltasNorm.normvals)) * sizeof(float);
  sum += (model.loss.size() + model.accuracy.size()) * sizeof(float);
  for (const std::string& note : model.notes.lines) sum += sizeof(std::string) + note.size();
  for (const auto& [key, value] : model.props) {
    sum += 2 * sizeof(std::string) + key.size() + value.size();
  }
  return sum;
}

LayerSummary summaryOf(const NNLayer& layer, const Watch& watch) {
  LayerSummary summary;
  summary.isBatchNorm = layer.isBatchNorm;
  summary.inputs = layer.weights.cols();
  summary.outputs = layer.weights.rows();
  summary.actFn = layer.actFn;
  forEachUsedArray(
      layer, [&summary](const char*, const auto& array) { summary.parameters += length(array); });
  summary.imageWeights = storedWeights(layer, watch);
  return summary;
}

}  // namespace

ModelSummary summaryOf(const MultiLayerNNModel& model, const Watch& watch) {
  ModelSummary summary;
  summary.memoryBytes = bytesAround(model);
  for (const NNLayer* layer : model.layers) {
    summary.layers.push_back(summaryOf(*layer, watch));
    summary.parameters += summary.layers.back().parameters;
    summary.memoryBytes += sizeof(void*) + bytesOf(*layer);
    tell(watch, 1);
  }
  return summary;
}

}  // namespace mlnn
