#include "model/ClassLabels.h"

namespace mlnn {
namespace {

constexpr char kLabelsProperty[] = "labels";

// Splits at every comma, and keeps empty pieces.
std::vector<std::string> splitAtCommas(const std::string& text) {
  std::vector<std::string> pieces(1);
  for (const char c : text) {
    if (c == ',') {
      pieces.emplace_back();
    } else {
      pieces.back() += c;
    }
  }
  return pieces;
}

}  // namespace

std::vector<std::string> classLabels(const MultiLayerNNModel& model) {
  const auto outputs = static_cast<std::size_t>(model.numOutputs());
  std::vector<std::string> labels = splitAtCommas(model.getProp(kLabelsProperty));
  if (labels.size() == outputs) return labels;
  return classLabels(model.numOutputs());
}

std::vector<std::string> classLabels(int numOutputs) {
  std::vector<std::string> labels;
  labels.reserve(static_cast<std::size_t>(numOutputs));
  for (int i = 0; i < numOutputs; ++i) labels.push_back(std::to_string(i));
  return labels;
}

}  // namespace mlnn
