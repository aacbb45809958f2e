// The pass for devices over an image, in memory of the very size that was asked for, against the
// one that other programs run: the same bits for input vectors and for frames one by one. And that
// other one with threads of its own.
#include "inference/DevicePass.h"

#include <cstring>
#include <memory>
#include <new>

#include "features/ContextWindow.h"
#include "fuzz/ModelChecks.h"
#include "fuzz/SameValues.h"
#include "fuzz/Support.h"
#include "inference/ImageFwdPass.h"
#include "inference/Threads.h"
#include "model/ModelFormat.h"

namespace {

using Eigen::MatrixXf;
using mlnn::DevicePass;
using mlnn::fuzz::require;
using mlnn::fuzz::sameValues;

constexpr std::uint64_t kMostMemory = std::uint64_t{1} << 22;

Eigen::Map<const Eigen::VectorXf> vectorOf(const float* values, Eigen::Index count) {
  return {values, count};
}

MatrixXf someValues(Eigen::Index rows, Eigen::Index cols, const uint8_t* data, std::size_t size) {
  mlnn::fuzz::Bytes bytes(data + size - size % 97, size % 97);
  MatrixXf values(rows, cols);
  for (Eigen::Index i = 0; i < values.size(); ++i) values.data()[i] = bytes.value();
  return values;
}

// Memory of some size where a device's has to begin, with nothing behind it.
class Memory {
 public:
  explicit Memory(std::uint64_t bytes)
      : block_(
            new (std::align_val_t{mlnn::kDeviceAlignment}) char[static_cast<std::size_t>(bytes)]) {}
  Memory(const Memory&) = delete;
  Memory& operator=(const Memory&) = delete;
  ~Memory() { ::operator delete[](block_, std::align_val_t{mlnn::kDeviceAlignment}); }

  char* get() const { return block_; }

 private:
  char* block_;
};

void checkVectors(DevicePass& device, mlnn::ImageFwdPass& pass, const MatrixXf& inputs,
                  const MatrixXf& wanted) {
  for (Eigen::Index f = 0; f < inputs.cols(); ++f) {
    const MatrixXf vector = inputs.col(f);
    require(sameValues(vectorOf(device.evaluate(vector.data()), wanted.rows()), wanted.col(f)),
            "gives other bits than the pass of other programs");
  }
  static const std::shared_ptr<mlnn::Threads> threads = mlnn::Threads::start(3);
  MatrixXf shared;
  pass.setThreads(threads);
  require(pass.evaluate(inputs, shared) == 0 && sameValues(shared, wanted),
          "threads give other bits");
  pass.setThreads(nullptr);
}

// Frames that come one by one give what their input vectors give.
void checkFrames(DevicePass& device, mlnn::ImageFwdPass& pass, const uint8_t* data,
                 std::size_t size) {
  if (device.frameLen() == 0 || device.delay() > 50) return;
  const MatrixXf frames = someValues(device.frameLen(), 3, data, size);
  std::string whyNot;
  auto window =
      mlnn::ContextWindow::create(pass.featureDesc(), pass.deltasNorm(), device.frameLen(), whyNot);
  require(window.has_value(), "takes frames that make no window");
  MatrixXf stacked;
  window->stack(frames, stacked);
  MatrixXf wanted;
  require(pass.evaluate(stacked, wanted) == 0, "takes what the pass refuses");
  Eigen::Index next = 0;
  const auto take = [&](const float* results) {
    if (results == nullptr) return false;
    require(next < wanted.cols() && sameValues(vectorOf(results, wanted.rows()), wanted.col(next)),
            "frames give other bits than their input vectors");
    ++next;
    return true;
  };
  for (Eigen::Index f = 0; f < frames.cols(); ++f) {
    const MatrixXf frame = frames.col(f);
    take(device.push(frame.data()));
  }
  while (take(device.finish())) continue;
  require(next == wanted.cols(), "loses results");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  const mlnn::fuzz::Diagnostics diagnostics;
  const std::unique_ptr<float[]> block(new float[size / sizeof(float) + 1]);
  std::memcpy(block.get(), data, size);
  const std::uint64_t bytes = DevicePass::memoryBytes(block.get(), size);
  mlnn::ImageFwdPass pass;
  const bool isTaken = pass.open(block.get(), size) == 0;
  if (bytes == 0) {
    require(size < mlnn::kMinImageLength || !diagnostics.text().empty(),
            "refused without a reason");
    return 0;
  }
  if (bytes > kMostMemory) return 0;
  const Memory memory(bytes);
  DevicePass device;
  require(device.open(block.get(), size, memory.get(), static_cast<std::size_t>(bytes) - 1) != 0,
          "takes less memory than it asks for");
  require(device.open(block.get(), size, memory.get(), static_cast<std::size_t>(bytes)) == 0,
          "refuses the memory that it asks for");
  const MatrixXf inputs = someValues(device.numInputs(), 2, data, size);
  if (!isTaken) {  // weights in another form than the writer's; they are run all the same
    for (Eigen::Index f = 0; f < inputs.cols(); ++f) device.evaluate(inputs.col(f).eval().data());
    return 0;
  }
  MatrixXf wanted;
  require(pass.evaluate(inputs, wanted) == 0, "takes what the pass refuses");
  checkVectors(device, pass, inputs, wanted);
  checkFrames(device, pass, data, size);
  return 0;
}
