#include "inference/FwdPass.h"

#include <algorithm>

#include "inference/ModelLayers.h"

using Eigen::Index;
using Eigen::MatrixXf;

namespace {

MatrixXf gathered(const mlnn::InputFrames& inputs) {
  MatrixXf matrix(inputs.width, inputs.frames);
  for (Index frame = 0; frame < inputs.frames; ++frame) {
    const float* const from = inputs.values + frame * inputs.frameStride;
    for (Index i = 0; i < inputs.width; ++i) matrix(i, frame) = from[i * inputs.valueStride];
  }
  return matrix;
}

}  // namespace

void FwdPass::setThreads(std::shared_ptr<mlnn::Threads>) {}

int FwdPass::evaluateFrames(const mlnn::InputFrames& inputs, const mlnn::OutputFrames& outputs) {
  if (!mlnn::framesFit(inputs, outputs, numInputs(), numOutputs(), "FwdPass::evaluate")) return 1;
  MatrixXf results;
  if (evaluate(gathered(inputs), results) != 0) return 1;
  for (Index frame = 0; frame < outputs.frames; ++frame) {
    std::copy_n(results.col(frame).data(), outputs.width,
                outputs.values + frame * outputs.frameStride);
  }
  return 0;
}

int FwdPass::evaluateInto(const mlnn::InputFrames& inputs, MatrixXf& outputs) {
  if (outputs.rows() == numOutputs() && outputs.cols() == inputs.frames) {
    return evaluate(inputs, mlnn::OutputFrames(outputs));
  }
  MatrixXf fresh(numOutputs(), inputs.frames);
  const int result = evaluate(inputs, mlnn::OutputFrames(fresh));
  if (result == 0) outputs.swap(fresh);
  return result;
}
