// A long day of a server in one process: frames are evaluated in several threads while the model is
// loaded again and again, from each format in turn, and by each kind of forward pass.
// Usage: Soak [FRAMES [RELOADS [THREADS [MEGABYTES]]]]    10000000 10000 8 1024 without arguments
// Every output is compared, bit for bit, with that of a pass alone. MEGABYTES is the most address
// space that the process may have behind its start. Prints the resident memory as the work goes on;
// exit status 1 when an output differs, or when the last tenth of the work has more memory than the
// second tenth had, by more than 4 MiB.
#include <sys/resource.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <mutex>
#include <sstream>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "inference/CodedFwdPass.h"
#include "inference/ImageFwdPass.h"
#include "inference/IntegerFwdPass.h"
#include "layers/Messages.h"
#include "model/MultiLayerNNModel.h"
#include "model/RowQuantization.h"
#include "tests/support/TempFolder.h"
#include "tests/support/TestModels.h"

namespace {

constexpr int kFramesAtOnce = 100;
constexpr std::size_t kParts = 10;
constexpr std::size_t kMayGrow = std::size_t{4} << 20;

// --- Memory ---

std::size_t pagesAt(int field) {
  std::ifstream statm("/proc/self/statm");
  std::size_t pages = 0;
  for (int i = 0; i <= field; ++i) statm >> pages;
  return pages * static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
}

std::size_t addressSpace() { return pagesAt(0); }
std::size_t residentMemory() { return pagesAt(1); }

void limitMemory(std::size_t megabytes) {
  const rlim_t most = addressSpace() + (megabytes << 20);
  const rlimit limit{most, most};
  if (megabytes > 0 && setrlimit(RLIMIT_AS, &limit) != 0) std::perror("setrlimit");
}

// --- Models ---

struct Source {
  std::string file;
  Eigen::MatrixXf expected[4];  // by each kind of pass
};

// A model, and the file that its image is mapped from.
struct Loaded {
  MultiLayerNNModel model;
  const Source* source;
  const std::string* image;
};

std::unique_ptr<FwdPass> makePass(const Loaded& loaded, std::size_t kind) {
  if (kind == 0) return std::unique_ptr<FwdPass>(loaded.model.createFwdPass());
  if (kind == 1) return mlnn::CodedFwdPass::create(loaded.model, 8);
  if (kind == 2) return mlnn::IntegerFwdPass::create(loaded.model);
  auto pass = std::make_unique<mlnn::ImageFwdPass>();
  pass->openFile(loaded.image->c_str());
  return pass;
}

MultiLayerNNModel theModel() {
  using namespace mlnn::test;
  MultiLayerNNModel model =
      modelOf({plainLayer(120, 64), batchNormLayer(64, 64, 2), plainLayer(64, 10, 3)});
  model.layers[0]->actFn = ActFn::relu;
  model.layers[1]->actFn = ActFn::sigmoid;
  model.deltasNorm.allocIfNeeded();
  return model;
}

std::string imageOf(const MultiLayerNNModel& model) {
  std::string image(static_cast<std::size_t>(model.binarySerializedLength()), '\0');
  model.serializeBinary(image.data());
  return image;
}

std::string textOf(const MultiLayerNNModel& model) {
  std::ostringstream text;
  text.precision(9);
  model.serializeAscii(text);
  return text.str();
}

std::shared_ptr<const Loaded> load(const Source& source, const std::string& image) {
  auto loaded = std::make_shared<Loaded>();
  loaded->source = &source;
  loaded->image = &image;
  if (loaded->model.deserialize(source.file.c_str()) != 0) std::abort();
  return loaded;
}

// --- The work ---

class Work {
 public:
  Work(long frames, long reloads, int threads)
      : frames_(frames), reloads_(reloads), threads_(threads) {
    MultiLayerNNModel model = theModel();
    addSource("text", textOf(model));
    addSource("image", imageOf(model));
    mlnn::quantizeRows(model, {4});
    addSource("codes", imageOf(model));
    image_ = folder_.write("mapped", imageOf(model));
    for (Source& source : sources_) {
      const std::shared_ptr<const Loaded> loaded = load(source, image_);
      for (std::size_t kind = 0; kind < 4; ++kind) {
        makePass(*loaded, kind)->evaluate(inputs_, source.expected[kind]);
      }
    }
    current_ = load(sources_[0], image_);
  }

  bool run() {
    std::vector<std::thread> threads;
    threads.emplace_back([this] { reload(); });
    for (int i = 1; i < threads_; ++i) threads.emplace_back([this, i] { evaluate(i); });
    for (std::thread& thread : threads) thread.join();
    std::printf("%ld frames, %ld reloads, %d threads, %ld outputs differ\n", done_.load(), reloads_,
                threads_, differences_.load());
    return differences_ == 0 && isFlat();
  }

 private:
  void addSource(const std::string& name, const std::string& bytes) {
    sources_.push_back({folder_.write(name, bytes), {}});
  }

  // Spreads the reloads over the frames.
  void reload() {
    for (long i = 0; i < reloads_; ++i) {
      const std::shared_ptr<const Loaded> next =
          load(sources_[static_cast<std::size_t>(i) % sources_.size()], image_);
      {
        const std::lock_guard<std::mutex> lock(mutex_);
        current_ = next;
      }
      if (i * long{kParts} / reloads_ > static_cast<long>(memory_.size())) note();
      const long due = frames_ / reloads_ * i;
      while (done_ < due) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    note();
  }

  void evaluate(int thread) {
    Eigen::MatrixXf outputs;
    for (std::size_t kind = static_cast<std::size_t>(thread); taken_ < frames_; ++kind) {
      taken_ += kFramesAtOnce;
      std::shared_ptr<const Loaded> loaded;
      {
        const std::lock_guard<std::mutex> lock(mutex_);
        loaded = current_;
      }
      const Eigen::MatrixXf& expected = loaded->source->expected[kind % 4];
      const int status = makePass(*loaded, kind % 4)->evaluate(inputs_, outputs);
      if (status != 0 || !mlnn::test::sameBits(outputs, expected)) ++differences_;
      done_ += kFramesAtOnce;
    }
  }

  void note() {
    memory_.push_back(residentMemory());
    std::printf("%ld frames: %.1f MiB\n", done_.load(), double(memory_.back()) / (1 << 20));
    std::fflush(stdout);
  }

  // The first tenth fills the heaps of the threads.
  bool isFlat() const {
    if (memory_.size() < 3 || memory_.back() <= memory_[1] + kMayGrow) return true;
    std::printf("the memory grew from %zu to %zu bytes\n", memory_[1], memory_.back());
    return false;
  }

  const long frames_;
  const long reloads_;
  const int threads_;
  const Eigen::MatrixXf inputs_ = mlnn::test::someValues(120, kFramesAtOnce, 5);
  mlnn::test::TempFolder folder_;
  std::vector<Source> sources_;
  std::string image_;
  std::mutex mutex_;
  std::shared_ptr<const Loaded> current_;
  std::atomic<long> taken_{0};
  std::atomic<long> done_{0};
  std::atomic<long> differences_{0};
  std::vector<std::size_t> memory_;  // of the reloading thread
};

}  // namespace

int main(int argc, char** argv) {
  const auto argument = [&](int i, long otherwise) {
    return argc > i ? std::atol(argv[i]) : otherwise;
  };
  mlnn::setMessageSink([](mlnn::Severity, std::string_view, void*) {}, nullptr);
  Work work(argument(1, 10000000), argument(2, 10000), static_cast<int>(argument(3, 8)));
  limitMemory(static_cast<std::size_t>(argument(4, 1024)));
  return work.run() ? 0 : 1;
}
