#include "inference/NNFwdPassFromFile.h"

#include <algorithm>
#include <iostream>

#include "features/EigenAssign.h"
#include "inference/Activation.h"
#include "model/MultiLayerNNModel.h"

namespace {

using Eigen::Index;

bool isEmptyOr(const Eigen::VectorXf& values, Index length) {
  return values.size() == 0 || values.size() == length;
}

// Whether a layer's arrays have the lengths that its kind asks for.
bool keepsInvariants(const NNLayer& layer) {
  const Index rows = layer.weights.rows();
  if (layer.actFn < 0 || layer.actFn >= ActFn::kCount) return false;
  if (!layer.isBatchNorm) {
    return layer.bias.size() == rows && isEmptyOr(layer.gamma, rows) &&
           isEmptyOr(layer.beta, rows) && isEmptyOr(layer.gamma_inf, rows) &&
           isEmptyOr(layer.beta_inf, rows);
  }
  return isEmptyOr(layer.bias, rows) && layer.gamma.size() == rows && layer.beta.size() == rows &&
         layer.gamma_inf.size() == rows && layer.beta_inf.size() == rows;
}

// Whether the stack can be evaluated; says why not.
bool stackFits(const MultiLayerNNModel& model) {
  if (model.layers.empty()) {
    std::cerr << "ERROR: NNFwdPassFromFile::evaluate: model has no layers\n";
    return false;
  }
  const NNLayer* previous = nullptr;
  for (std::size_t i = 0; i < model.layers.size(); ++i) {
    const NNLayer* layer = model.layers[i];
    const bool fits = layer != nullptr && keepsInvariants(*layer) &&
                      (previous == nullptr || layer->weights.cols() == previous->weights.rows());
    if (!fits) {
      std::cerr << "ERROR: NNFwdPassFromFile::evaluate: layer " << i + 1
                << " does not fit the model\n";
      return false;
    }
    previous = layer;
  }
  return true;
}

Index widestLayer(const MultiLayerNNModel& model) {
  Index widest = model.numInputs();
  for (const NNLayer* layer : model.layers) widest = std::max(widest, layer->weights.rows());
  return widest;
}

void makeRoom(Eigen::VectorXf& scratch, Index length) {
  if (scratch.size() < length) mlnn::assignZeros(scratch, length);
}

// weights * x, and bias or batch-norm scale and shift.
void affine(const NNLayer& layer, const Eigen::Ref<const Eigen::VectorXf>& x,
            Eigen::Ref<Eigen::VectorXf> y) {
  y.noalias() = layer.weights * x;
  if (layer.isBatchNorm) {
    y.array() = layer.gamma_inf.array() * y.array() + layer.beta_inf.array();
  } else {
    y += layer.bias;
  }
}

std::vector<mlnn::LayerResult> emptyTrace(const MultiLayerNNModel& model, Index frames) {
  std::vector<mlnn::LayerResult> trace(model.layers.size());
  for (std::size_t i = 0; i < trace.size(); ++i) {
    trace[i].affine.resize(model.layers[i]->weights.rows(), frames);
    trace[i].activated.resize(model.layers[i]->weights.rows(), frames);
  }
  return trace;
}

}  // namespace

NNFwdPassFromFile::NNFwdPassFromFile(MultiLayerNNModel& model) : model_(&model) {}

int NNFwdPassFromFile::numInputs() const { return model_->numInputs(); }

int NNFwdPassFromFile::numOutputs() const { return model_->numOutputs(); }

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

int NNFwdPassFromFile::run(const Eigen::Ref<const Eigen::MatrixXf>& inputs,
                           Eigen::MatrixXf& outputs, std::vector<mlnn::LayerResult>* trace) {
  if (!stackFits(*model_)) return 1;
  if (inputs.rows() != numInputs()) {
    std::cerr << "ERROR: NNFwdPassFromFile::evaluate: expected " << numInputs()
              << " inputs but got " << inputs.rows() << "\n";
    return 1;
  }
  makeRoom(current_, widestLayer(*model_));
  makeRoom(next_, widestLayer(*model_));
  makeRoom(results_, numOutputs() * inputs.cols());
  if (trace != nullptr) *trace = emptyTrace(*model_, inputs.cols());
  for (Index frame = 0; frame < inputs.cols(); ++frame) {
    current_.head(inputs.rows()) = inputs.col(frame);
    evaluateFrame(frame, trace);
  }
  mlnn::reshape(outputs, numOutputs(), inputs.cols());
  outputs = Eigen::Map<const Eigen::MatrixXf>(results_.data(), numOutputs(), inputs.cols());
  return 0;
}

// Takes the frame's input from current_ and puts its outputs into results_.
void NNFwdPassFromFile::evaluateFrame(Index frame, std::vector<mlnn::LayerResult>* trace) {
  for (std::size_t i = 0; i < model_->layers.size(); ++i) {
    const NNLayer& layer = *model_->layers[i];
    auto y = next_.head(layer.weights.rows());
    affine(layer, current_.head(layer.weights.cols()), y);
    if (trace != nullptr) (*trace)[i].affine.col(frame) = y;
    mlnn::applyActivation(layer.actFn, y);
    if (trace != nullptr) (*trace)[i].activated.col(frame) = y;
    current_.swap(next_);
  }
  auto outputs = results_.segment(frame * numOutputs(), numOutputs());
  outputs = current_.head(numOutputs());
  if (model_->useSoftmax) mlnn::applySoftmax(outputs);
}
