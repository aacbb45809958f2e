// Watches a stream of frames, as a microphone would bring them one by one: prints what the network
// hears whenever that changes, by posteriors that are smoothed over time.
// Usage: watch_stream MODEL FRAMES.npy...      the recordings follow one another in one stream
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "../library/frames.h"
#include "features/ContextWindow.h"
#include "model/ModelFile.h"

namespace {

// Follows posteriors slowly, so that no single frame decides: each new one counts for a tenth.
class Smoother {
 public:
  explicit Smoother(Eigen::Index outputs)
      : smoothed_(Eigen::VectorXf::Constant(outputs, 1.0f / static_cast<float>(outputs))) {}

  const Eigen::VectorXf& add(const Eigen::VectorXf& posteriors) {
    constexpr float kNew = 0.1f;
    smoothed_ += kNew * (posteriors - smoothed_);
    return smoothed_;
  }

 private:
  Eigen::VectorXf smoothed_;
};

// Prints a line whenever another output has more than half of the smoothed posteriors.
class Reporter {
 public:
  void hear(int frame, const Eigen::VectorXf& smoothed) {
    Eigen::Index best;
    const float share = smoothed.maxCoeff(&best);
    if (share <= 0.5f || best == heard_) return;
    heard_ = best;
    std::printf("frame %d: %d (%.2f)\n", frame, static_cast<int>(best), share);
  }

 private:
  Eigen::Index heard_ = -1;
};

// All that a stream needs. Nothing is allocated for a frame.
class Watcher {
 public:
  Watcher(MultiLayerNNModel& model, mlnn::ContextWindow window)
      : window_(std::move(window)),
        pass_(model.createFwdPass()),
        input_(pass_->numInputs()),
        posteriors_(pass_->numOutputs()),
        smoother_(pass_->numOutputs()) {}

  // Takes a frame; the outputs that may come of it are those of an earlier one.
  bool push(const float* frame) { return !window_.push(frame, input_.data()) || evaluate(); }

  // Evaluates the frames that still wait for others.
  bool finish() {
    while (window_.finish(input_.data())) {
      if (!evaluate()) return false;
    }
    return true;
  }

 private:
  bool evaluate() {
    if (pass_->evaluate(mlnn::InputFrames(input_), mlnn::OutputFrames(posteriors_)) != 0) {
      return false;
    }
    reporter_.hear(evaluated_++, smoother_.add(posteriors_));
    return true;
  }

  mlnn::ContextWindow window_;
  std::unique_ptr<NNFwdPassFromFile> pass_;
  Eigen::VectorXf input_;
  Eigen::VectorXf posteriors_;
  Smoother smoother_;
  Reporter reporter_;
  int evaluated_ = 0;  // frames so far
};

}  // namespace

int main(int argc, char** argv) {
  if (argc < 3) return 2;
  const std::unique_ptr<MultiLayerNNModel> model = mlnn::openModel(argv[1]);
  if (!model) return 1;
  std::string whyNot;
  auto window = mlnn::ContextWindow::create(model->featureDesc, model->deltasNorm,
                                            model->featureDesc.frameLen(), whyNot);
  if (!window || window->inputLen() != model->numInputs()) {
    std::fprintf(stderr, "the model is not for a stream of frames: %s\n", whyNot.c_str());
    return 1;
  }
  const int width = window->frameLen();
  std::printf("outputs are %d frames late\n", window->delay());
  Watcher watcher(*model, *std::move(window));
  for (int i = 2; i < argc; ++i) {
    const Eigen::MatrixXf frames = readFrames(argv[i], width);
    std::printf("%d frames come\n", static_cast<int>(frames.cols()));
    for (Eigen::Index f = 0; f < frames.cols(); ++f) {
      if (!watcher.push(frames.col(f).data())) return 1;
    }
  }
  return watcher.finish() ? 0 : 1;
}
