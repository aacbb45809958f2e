#include "DigitDecoder.h"

#include <algorithm>
#include <cmath>
#include <stdexcept>

#include "features/string_split.h"
#include "model/ModelFile.h"

namespace {

constexpr double kSmallestPosterior = 1e-30;

mlnn::ContextWindow windowOf(const MultiLayerNNModel& model) {
  std::string whyNot;
  auto window = mlnn::ContextWindow::create(model.featureDesc, model.deltasNorm,
                                            std::tuple_size<Frame>::value, whyNot);
  if (!window) throw std::runtime_error(whyNot);
  return *window;
}

std::vector<std::string> labelsOf(const MultiLayerNNModel& model) {
  std::vector<std::string> labels;
  string_split(labels, model.getProp("labels"), ",");
  const auto outputs = static_cast<std::size_t>(model.numOutputs());
  if (labels.size() == outputs) return labels;
  labels.clear();
  for (std::size_t i = 0; i < outputs; ++i) labels.push_back(std::to_string(i));
  return labels;
}

}  // namespace

std::unique_ptr<MultiLayerNNModel> loadNetwork(const std::string& name) {
  std::unique_ptr<MultiLayerNNModel> model = mlnn::openModel(name);
  if (!model) throw std::runtime_error(name + " does not load");
  const DbnFeatureDescription& features = model->featureDesc;
  if (features.numBands != kBands || !features.useDeltas ||
      features.featLen() != model->numInputs() || model->numOutputs() == 0) {
    throw std::runtime_error(name + " is not for frames of " + std::to_string(kBands) +
                             " mel bands and their deltas");
  }
  return model;
}

DigitDecoder::DigitDecoder(MultiLayerNNModel& model)
    : window_(windowOf(model)),
      pass_(model),
      input_(window_.inputLen(), 1),
      scores_(Eigen::ArrayXd::Zero(model.numOutputs())),
      labels_(labelsOf(model)) {}

bool DigitDecoder::push(const Frame& frame) {
  return window_.push(frame.data(), input_.data()) && evaluate();
}

bool DigitDecoder::finish() { return window_.finish(input_.data()) && evaluate(); }

bool DigitDecoder::evaluate() {
  if (pass_.evaluate(input_, posteriors_) != 0) throw std::runtime_error("the network cannot run");
  scores_ += posteriors_.col(0).array().cast<double>().max(kSmallestPosterior).log();
  ++frames_;
  return true;
}

int DigitDecoder::best(double& score) const {
  Eigen::Index output = 0;
  score = scores_.maxCoeff(&output);
  return static_cast<int>(output);
}
