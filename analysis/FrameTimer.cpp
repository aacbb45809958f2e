#include "analysis/FrameTimer.h"

#include <Eigen/Core>
#include <algorithm>
#include <cstdint>
#include <memory>
#include <random>
#include <utility>
#include <vector>

#include "inference/Evaluation.h"
#include "inference/NNFwdPassFromFile.h"
#include "model/StackOutputs.h"
#include "os/ProcessorTime.h"

namespace mlnn {
namespace {

constexpr double kWarmUpShare = 0.2;       // of the whole time, before anything is measured
constexpr double kMinMeasurement = 0.001;  // seconds; much longer than the clock's own steps
constexpr std::size_t kMinMeasurements = 5;

// Some frames with values in 0..1, as normalised features have; the same ones every time.
Eigen::MatrixXf randomFrames(Eigen::Index width) {
  constexpr Eigen::Index kFrames = 8;
  std::mt19937 random(1);
  Eigen::MatrixXf frames(width, kFrames);
  for (Eigen::Index i = 0; i < frames.size(); ++i) {
    frames.data()[i] = static_cast<float>(random() >> 8) / static_cast<float>(1u << 24);
  }
  return frames;
}

class Timer {
 public:
  explicit Timer(FwdPass& pass) : pass_(pass), frames_(randomFrames(pass.numInputs())) {}

  // Whether the model can be run at all; the first evaluation tells.
  bool runs() { return pass_.evaluate(frames_.leftCols(1), outputs_) == 0; }

  // Evaluates `count` frames and returns the processor time that it took.
  // REQUIRES: runs() was true.
  double evaluate(std::size_t count) {
    const double start = processorSeconds();
    for (std::size_t i = 0; i < count; ++i) {
      const Eigen::Index frame = evaluated_++ % frames_.cols();
      pass_.evaluate(frames_.col(frame), outputs_);
    }
    return processorSeconds() - start;
  }

  std::size_t evaluated() const { return static_cast<std::size_t>(evaluated_); }

 private:
  FwdPass& pass_;
  Eigen::MatrixXf frames_;
  Eigen::MatrixXf outputs_;
  Eigen::Index evaluated_ = 0;
};

// Tells a watch how much of some processor time is spent.
class SpentTime {
 public:
  SpentTime(double seconds, const Watch& watch) : seconds_(seconds), watch_(watch) {}

  void add(double seconds) {
    spent_ += seconds;
    const double share = std::min(spent_ / seconds_, 1.0);
    const auto steps = static_cast<std::size_t>(share * double{kTimingSteps});
    tell(watch_, steps - shown_);
    shown_ = steps;
  }

 private:
  double seconds_;
  const Watch& watch_;
  double spent_ = 0;
  std::size_t shown_ = 0;
};

// Warms up, and finds how many frames make one measurement.
std::size_t framesInMeasurement(Timer& timer, double seconds, SpentTime& shown) {
  std::size_t frames = 1;
  for (double spent = 0;;) {
    const double took = timer.evaluate(frames);
    spent += took;
    shown.add(took);
    if (took < kMinMeasurement) {
      frames *= 2;
    } else if (spent >= seconds) {
      return frames;
    }
  }
}

FrameTime summary(std::vector<double> times, std::size_t frames) {
  std::sort(times.begin(), times.end());
  const std::size_t middle = times.size() / 2;
  const double median =
      times.size() % 2 == 1 ? times[middle] : (times[middle - 1] + times[middle]) / 2;
  return {median, times.front(), times.back(), frames};
}

}  // namespace

std::optional<FrameTime> timeFrames(MultiLayerNNModel& model, double seconds, std::string& whyNot,
                                    const Watch& watch) {
  // Inputs must not take more memory than the model's own file.
  if (!model.layers.empty() && !hasOutputs(model.layers)) {
    whyNot = kNoOutputs;
    return std::nullopt;
  }
  const std::unique_ptr<NNFwdPassFromFile> pass(model.createFwdPass());
  return timeFrames(*pass, seconds, whyNot, watch);
}

std::optional<FrameTime> timeFrames(FwdPass& pass, double seconds, std::string& whyNot,
                                    const Watch& watch) {
  if (pass.numOutputs() == 0 && pass.numInputs() > 0) {
    whyNot = kNoOutputs;
    return std::nullopt;
  }
  Timer timer(pass);
  if (!timer.runs()) {
    whyNot = kCannotBeRun;
    return std::nullopt;
  }
  const double warmUp = kWarmUpShare * seconds;
  SpentTime shown(warmUp + seconds, watch);
  const std::size_t frames = framesInMeasurement(timer, warmUp, shown);
  const std::size_t before = timer.evaluated();
  std::vector<double> times;
  for (double spent = 0; spent < seconds || times.size() < kMinMeasurements;) {
    const double took = timer.evaluate(frames);
    spent += took;
    times.push_back(took / static_cast<double>(frames));
    shown.add(took);
  }
  return summary(std::move(times), timer.evaluated() - before);
}

}  // namespace mlnn
