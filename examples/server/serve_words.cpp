// A server in small: several threads name words, by one model that they share, while it is reloaded
// again and again. A file that is no model is refused, and the old model goes on.
// Usage: serve_words MODEL BROKEN FRAMES.npy...
#include <array>
#include <atomic>
#include <cstdio>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "../library/frames.h"
#include "features/ContextWindow.h"
#include "layers/Messages.h"
#include "model/ModelFile.h"

namespace {

using SharedModel = std::shared_ptr<const MultiLayerNNModel>;

// The model that new requests are for. Whoever has taken one keeps it as long as it is needed.
class CurrentModel {
 public:
  SharedModel take() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return model_;
  }

  // Opens the file, away from all requests, and puts it in the place of the model that is there.
  // Returns: "" where that is done; else why not, and the model stays.
  std::string reload(const std::string& name) {
    const mlnn::CollectedMessages said;
    SharedModel model = mlnn::openModel(name);
    if (!model) return mlnn::lastError();
    const std::lock_guard<std::mutex> lock(mutex_);
    model_.swap(model);  // the last request that uses the old one frees it
    return "";
  }

 private:
  mutable std::mutex mutex_;
  SharedModel model_;
};

// What one thread has of its own: a pass and a window for the model that it saw last.
class Worker {
 public:
  explicit Worker(const CurrentModel& current) : current_(current) {}

  // Returns the word in a recording; -1 when the model cannot be run.
  int nameWord(const Eigen::MatrixXf& frames) {
    if (!follow() || !window_->stack(frames, inputs_)) return -1;
    if (pass_->evaluate(inputs_, posteriors_) != 0) return -1;
    Eigen::Index best;
    posteriors_.array().max(1e-30f).log().rowwise().sum().maxCoeff(&best);
    return static_cast<int>(best);
  }

 private:
  // Takes the current model, where it is another one.
  bool follow() {
    SharedModel model = current_.take();
    if (model == model_) return window_.has_value();
    std::string whyNot;
    model_ = std::move(model);
    pass_ = std::make_unique<NNFwdPassFromFile>(model_);
    window_ = mlnn::ContextWindow::create(model_->featureDesc, model_->deltasNorm,
                                          model_->featureDesc.frameLen(), whyNot);
    return window_.has_value();
  }

  const CurrentModel& current_;
  SharedModel model_;
  std::unique_ptr<NNFwdPassFromFile> pass_;
  std::optional<mlnn::ContextWindow> window_;
  Eigen::MatrixXf inputs_;
  Eigen::MatrixXf posteriors_;
};

using Recordings = std::vector<Eigen::MatrixXf>;

// Names every recording several times over; returns how often the answer was another than before.
int serve(const CurrentModel& current, const Recordings& recordings, std::atomic<int>& answers) {
  constexpr int kRounds = 20;
  Worker worker(current);
  std::map<std::size_t, int> first;
  int differing = 0;
  for (int round = 0; round < kRounds; ++round) {
    for (std::size_t i = 0; i < recordings.size(); ++i) {
      const int word = worker.nameWord(recordings[i]);
      differing += word < 0 || first.emplace(i, word).first->second != word;
      ++answers;
    }
  }
  return differing;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 4) return 2;
  CurrentModel current;
  const std::string whyNot = current.reload(argv[1]);
  if (!whyNot.empty()) {
    std::fprintf(stderr, "%s\n", whyNot.c_str());
    return 1;
  }
  Recordings recordings;
  const int width = current.take()->featureDesc.frameLen();
  for (int i = 3; i < argc; ++i) recordings.push_back(readFrames(argv[i], width));

  constexpr std::size_t kThreads = 4;
  std::atomic<int> answers{0};
  std::array<int, kThreads> differing{};
  std::vector<std::thread> threads;
  for (std::size_t t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] { differing[t] = serve(current, recordings, answers); });
  }
  constexpr int kReloads = 10;
  int refused = 0;
  for (int i = 0; i < kReloads; ++i) {
    refused += !current.reload(argv[1]).empty();
    refused += !current.reload(argv[2]).empty();
  }
  const std::string why = current.reload(argv[2]);
  for (std::thread& thread : threads) thread.join();

  int wrong = 0;
  for (const int count : differing) wrong += count;
  std::printf("%d answers by %d threads, %d of them wrong\n", answers.load(),
              static_cast<int>(kThreads), wrong);
  std::printf("%d reloads, %d refused: %s\n", 2 * kReloads, refused, why.c_str());
  return wrong == 0 ? 0 : 1;
}
