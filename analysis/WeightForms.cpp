#include "analysis/WeightForms.h"

#include <cstddef>

#include "layers/NNLayerRecord.h"

namespace mlnn {
namespace {

std::string layersText(std::size_t first, std::size_t last) {
  if (first == last) return "layer " + std::to_string(first);
  return "layers " + std::to_string(first) + "-" + std::to_string(last);
}

}  // namespace

const char* weightForm(const NNLayer& layer) {
  static constexpr const char* kForms[kNumWeightForms] = {"floats", "bytes", "half bytes",
                                                          "bytes by rows", "half bytes by rows"};
  return kForms[planRecord(layer).form];
}

std::string weightForms(const MultiLayerNNModel& model) {
  std::string text;
  for (std::size_t first = 0; first < model.layers.size();) {
    const std::string form = weightForm(*model.layers[first]);
    std::size_t next = first + 1;
    while (next < model.layers.size() && weightForm(*model.layers[next]) == form) ++next;
    text += (text.empty() ? "" : ", ") + form + " in " + layersText(first + 1, next);
    first = next;
  }
  return text.empty() ? "none" : text;
}

}  // namespace mlnn
