#include "inference/NNFwdPassFromFile.h"

#include <utility>

#include "inference/LayerStackPass.h"
#include "inference/ModelLayers.h"
#include "model/MultiLayerNNModel.h"

namespace {

constexpr char kEvaluate[] = "NNFwdPassFromFile::evaluate";

}  // namespace

NNFwdPassFromFile::NNFwdPassFromFile(const MultiLayerNNModel& model)
    : model_(std::shared_ptr<const MultiLayerNNModel>(), &model) {}

NNFwdPassFromFile::NNFwdPassFromFile(std::shared_ptr<const MultiLayerNNModel> model)
    : model_(std::move(model)) {}

void NNFwdPassFromFile::setThreads(std::shared_ptr<mlnn::Threads> threads) {
  memory_.threads = std::move(threads);
}

int NNFwdPassFromFile::numInputs() const { return model_ == nullptr ? 0 : model_->numInputs(); }

int NNFwdPassFromFile::numOutputs() const { return model_ == nullptr ? 0 : model_->numOutputs(); }

int NNFwdPassFromFile::evaluate(const Eigen::Ref<const Eigen::MatrixXf>& inputs,
                                Eigen::MatrixXf& outputs) {
  return run(inputs, outputs, nullptr);
}

int NNFwdPassFromFile::evaluateLayers(const Eigen::Ref<const Eigen::MatrixXf>& inputs,
                                      Eigen::MatrixXf& outputs,
                                      std::vector<mlnn::LayerResult>& layers) {
  std::vector<mlnn::LayerResult> trace;
  if (run(inputs, outputs, &trace) != 0) return 1;
  layers.swap(trace);
  return 0;
}

std::size_t NNFwdPassFromFile::workingBytes(const MultiLayerNNModel& model, Eigen::Index frames) {
  return sizeof(NNFwdPassFromFile) + mlnn::passMemoryBytes(mlnn::ModelLayers(model), frames);
}

int NNFwdPassFromFile::evaluateFrames(const mlnn::InputFrames& inputs,
                                      const mlnn::OutputFrames& outputs) {
  if (!mlnn::canBeEvaluated(model_.get(), kEvaluate)) return 1;
  if (!mlnn::framesFit(inputs, outputs, numInputs(), numOutputs(), kEvaluate)) return 1;
  mlnn::evaluateStack(mlnn::ModelLayers(*model_), inputs, outputs, memory_, memory_.threads.get());
  return 0;
}

int NNFwdPassFromFile::run(const Eigen::Ref<const Eigen::MatrixXf>& inputs,
                           Eigen::MatrixXf& outputs, std::vector<mlnn::LayerResult>* trace) {
  if (!mlnn::canBeEvaluated(model_.get(), kEvaluate)) return 1;
  if (!mlnn::inputsFit(inputs.rows(), numInputs(), kEvaluate)) return 1;
  mlnn::evaluateStack(mlnn::ModelLayers(*model_), inputs, outputs, memory_, trace,
                      memory_.threads.get());
  return 0;
}
