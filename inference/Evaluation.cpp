#include "inference/Evaluation.h"

#include <cmath>
#include <memory>

#include "inference/NNFwdPassFromFile.h"
#include "inference/Pace.h"

namespace mlnn {
namespace {

using Eigen::Index;

constexpr double kSmallestPosterior = 1e-30;  // keeps one frame from deciding by log(0)

// The first of the largest values, -1 when any is NaN.
template <typename Vector>
Index largest(const Vector& values) {
  Index best = -1;
  for (Index i = 0; i < values.size(); ++i) {
    if (std::isnan(values[i])) return -1;
    if (best < 0 || values[i] > values[best]) best = i;
  }
  return best;
}

}  // namespace

std::optional<Eigen::MatrixXf> evaluateFrames(MultiLayerNNModel& model,
                                              const Eigen::Ref<const Eigen::MatrixXf>& frames,
                                              const RecordingInputs& inputs, const Watch& watch) {
  const std::unique_ptr<NNFwdPassFromFile> pass(model.createFwdPass());
  return evaluateFrames(*pass, frames, inputs, watch);
}

std::optional<Eigen::MatrixXf> evaluateFrames(FwdPass& pass,
                                              const Eigen::Ref<const Eigen::MatrixXf>& frames,
                                              const RecordingInputs& inputs, const Watch& watch) {
  Eigen::MatrixXf outputs(pass.numOutputs(), frames.cols());
  Eigen::MatrixXf blockOutputs;
  RecordingInputs::Blocks blocks(inputs, frames);
  Pace pace(watch, blocks.maxLength());
  Index done = 0;
  while (const auto block = blocks.next(pace.frames())) {
    int result = 0;
    pace.run([&] { result = pass.evaluate(*block, blockOutputs); });
    if (result != 0) return std::nullopt;
    outputs.middleCols(done, block->cols()) = blockOutputs;
    done += block->cols();
    tell(watch, static_cast<std::size_t>(block->cols()));
  }
  return outputs;
}

bool evaluateArriving(FwdPass& pass, const RecordingInputs& inputs, const NextFrames& next,
                      const UseOutputs& use, const Watch& watch) {
  RecordingInputs::Arriving arriving(inputs);
  Pace pace(watch, arriving.maxLength());
  Eigen::MatrixXf frames;
  Eigen::MatrixXf outputs;
  for (bool goOn = true; goOn;) {
    goOn = next(pace.frames(), frames);
    if (goOn) {
      arriving.take(std::move(frames));
    } else {
      arriving.end();
    }
    while (const auto block = arriving.next(pace.frames())) {
      int result = 0;
      pace.run([&] { result = pass.evaluate(*block, outputs); });
      if (result != 0) return false;
      if (!use(outputs)) return true;
      tell(watch, static_cast<std::size_t>(block->cols()));
    }
  }
  return true;
}

Index bestClass(const Eigen::Ref<const Eigen::VectorXf>& outputs) { return largest(outputs); }

Eigen::VectorXd sumOfLogs(const Eigen::MatrixXf& posteriors) {
  Eigen::VectorXd sums = Eigen::VectorXd::Zero(posteriors.rows());
  addSumOfLogs(posteriors, sums);
  return sums;
}

void addSumOfLogs(const Eigen::MatrixXf& posteriors, Eigen::VectorXd& sums) {
  if (sums.size() == 0) sums = Eigen::VectorXd::Zero(posteriors.rows());
  for (Index f = 0; f < posteriors.cols(); ++f) {
    for (Index c = 0; c < posteriors.rows(); ++c) {
      const double p = static_cast<double>(posteriors(c, f));
      sums[c] += std::log(p < kSmallestPosterior ? kSmallestPosterior : p);  // NaN stays NaN
    }
  }
}

Index largestSum(const Eigen::VectorXd& sums) { return largest(sums); }

Index recordingClass(const Eigen::MatrixXf& posteriors) { return largest(sumOfLogs(posteriors)); }

}  // namespace mlnn
