#include "inference/NNFwdPassFromFile.h"

#include <algorithm>
#include <cstdint>
#include <functional>
#include <iostream>
#include <utility>

#include "features/EigenAssign.h"
#include "inference/Activation.h"
#include "inference/Kernels.h"
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

constexpr Index kFloatsInCacheLine = 16;

Index widestLayer(const MultiLayerNNModel& model) {
  Index widest = 0;
  for (const NNLayer* layer : model.layers) widest = std::max(widest, layer->weights.rows());
  return widest;
}

// From one frame to the next in the memory between layers: whole cache lines, and an odd number
// of them, so that frames do not compete for the same places of a cache.
Index strideFor(Index width) {
  const Index lines = (width + kFloatsInCacheLine - 1) / kFloatsInCacheLine;
  return (lines | 1) * kFloatsInCacheLine;
}

// The frames that go through all layers before the next ones. More make the weights pay off no
// better, but need more memory; very wide layers get less than 128 MiB.
Index framesAtOnce(const MultiLayerNNModel& model) {
  constexpr Index kFrames = 256;
  constexpr Index kFloats = Index{1} << 24;
  return std::clamp<Index>(kFloats / (strideFor(widestLayer(model)) + 1), 1, kFrames);
}

float* atCacheLine(float* values) {
  constexpr auto kBytes = std::uintptr_t{kFloatsInCacheLine * sizeof(float)};
  const auto past = reinterpret_cast<std::uintptr_t>(values) % kBytes;
  return past == 0 ? values : values + (kBytes - past) / sizeof(float);
}

void growTo(Eigen::VectorXf& values, Index length) {
  if (values.size() < length) mlnn::reshape(values, length, 1);
}

// Whether the matrix shares memory with the inputs.
bool overlap(const Eigen::Ref<const Eigen::MatrixXf>& inputs, const Eigen::MatrixXf& outputs) {
  if (inputs.size() == 0 || outputs.size() == 0) return false;
  const float* inputsEnd =
      inputs.data() + (inputs.cols() - 1) * inputs.outerStride() + inputs.rows();
  const std::less<const float*> before;
  return before(inputs.data(), outputs.data() + outputs.size()) &&
         before(outputs.data(), inputsEnd);
}

mlnn::LayerView viewOf(const NNLayer& layer) {
  return {layer.weights.data(),
          static_cast<std::size_t>(layer.weights.rows()),
          static_cast<std::size_t>(layer.weights.cols()),
          layer.isBatchNorm ? layer.gamma_inf.data() : nullptr,
          layer.isBatchNorm ? layer.beta_inf.data() : layer.bias.data(),
          layer.actFn};
}

// Some frames in memory, one behind the other.
struct Frames {
  float* first;
  Index stride;
  Index count;
};

// The results of a layer for as many frames as `y` has room for.
void evaluateLayer(const mlnn::LayerView& layer, const float* x, Index xStride, const Frames& y,
                   float* scratch) {
  const mlnn::Kernels& kernels = mlnn::bestKernels();
  if (y.count == 1) return kernels.matrixVector(layer, x, y.first, scratch);
  kernels.matrixFrames(layer, x, static_cast<std::size_t>(xStride), y.first,
                       static_cast<std::size_t>(y.stride), static_cast<std::size_t>(y.count),
                       scratch);
}

std::vector<mlnn::LayerResult> emptyTrace(const MultiLayerNNModel& model, Index frames) {
  std::vector<mlnn::LayerResult> trace(model.layers.size());
  for (std::size_t i = 0; i < trace.size(); ++i) {
    trace[i].affine.resize(model.layers[i]->weights.rows(), frames);
    trace[i].activated.resize(model.layers[i]->weights.rows(), frames);
  }
  return trace;
}

// The same in two steps, keeping what is between them; frame `first` of `result` is the first.
void traceLayer(mlnn::LayerView layer, const float* x, Index xStride, const Frames& y,
                float* scratch, Index first, mlnn::LayerResult& result) {
  const ActFn::ActFn fn = layer.actFn;
  layer.actFn = ActFn::linear;
  evaluateLayer(layer, x, xStride, y, scratch);
  const auto rows = static_cast<Index>(layer.rows);
  for (Index frame = 0; frame < y.count; ++frame) {
    Eigen::Map<Eigen::VectorXf> values(y.first + frame * y.stride, rows);
    result.affine.col(first + frame) = values;
    mlnn::applyActivation(fn, values);
    result.activated.col(first + frame) = values;
  }
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
  const Index atOnce = framesAtOnce(*model_);
  makeRoom(std::min(inputs.cols(), atOnce));
  if (trace != nullptr) *trace = emptyTrace(*model_, inputs.cols());
  const bool apart = !overlap(inputs, outputs);
  if (apart) mlnn::reshape(outputs, numOutputs(), inputs.cols());
  if (!apart) growTo(results_, numOutputs() * inputs.cols());
  Eigen::Map<Eigen::MatrixXf> results(apart ? outputs.data() : results_.data(), numOutputs(),
                                      inputs.cols());
  for (Index first = 0; first < inputs.cols(); first += atOnce) {
    const Index count = std::min(inputs.cols() - first, atOnce);
    evaluateFrames(inputs.middleCols(first, count), results.middleCols(first, count), first, trace);
  }
  if (apart) return 0;
  mlnn::reshape(outputs, numOutputs(), inputs.cols());
  outputs = results;
  return 0;
}

void NNFwdPassFromFile::makeRoom(Index frames) {
  const Index widest = widestLayer(*model_);
  const std::size_t scratch =
      mlnn::scratchFloats(static_cast<std::size_t>(widest), static_cast<std::size_t>(frames));
  growTo(scratch_, static_cast<Index>(scratch) + kFloatsInCacheLine);
  growTo(between_, 2 * strideFor(widest) * frames + kFloatsInCacheLine);
}

void NNFwdPassFromFile::evaluateFrames(const Eigen::Ref<const Eigen::MatrixXf>& inputs,
                                       Eigen::Ref<Eigen::MatrixXf> outputs, Index first,
                                       std::vector<mlnn::LayerResult>* trace) {
  float* const scratch = atCacheLine(scratch_.data());
  float* next = atCacheLine(between_.data());
  float* spare = next + strideFor(widestLayer(*model_)) * inputs.cols();
  const float* x = inputs.data();
  Index xStride = inputs.outerStride();
  for (std::size_t i = 0; i < model_->layers.size(); ++i) {
    const bool isLast = i + 1 == model_->layers.size();
    mlnn::LayerView layer = viewOf(*model_->layers[i]);
    const Frames y{isLast ? outputs.data() : next,
                   isLast ? outputs.outerStride() : strideFor(static_cast<Index>(layer.rows)),
                   inputs.cols()};
    if (trace == nullptr) {
      evaluateLayer(layer, x, xStride, y, scratch);
    } else {
      traceLayer(layer, x, xStride, y, scratch, first, (*trace)[i]);
    }
    x = y.first;
    xStride = y.stride;
    std::swap(next, spare);
  }
  if (!model_->useSoftmax) return;
  for (Index frame = 0; frame < outputs.cols(); ++frame) mlnn::applySoftmax(outputs.col(frame));
}
