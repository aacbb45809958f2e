// One frame at a time, as on a device: frames go through a ContextWindow, and each input vector
// through a forward pass, without a call of the system, an allocation or a lock.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <pthread.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "features/ContextWindow.h"
#include "inference/CodedFwdPass.h"
#include "inference/NNFwdPassFromFile.h"
#include "model/MultiLayerNNModel.h"
#include "tests/support/AllocationWatch.h"
#include "tests/support/TestModels.h"

namespace {

// Locks taken since the program started, by whoever calls the function below.
std::size_t locks = 0;

}  // namespace

// Stands in front of the system's own.
extern "C" int pthread_mutex_lock(pthread_mutex_t* mutex) noexcept {
  using Lock = int (*)(pthread_mutex_t*);
  static Lock lock = nullptr;
  if (lock == nullptr) lock = reinterpret_cast<Lock>(dlsym(RTLD_NEXT, "pthread_mutex_lock"));
  ++locks;
  return lock(mutex);
}

namespace {

using Eigen::Index;
using Eigen::MatrixXf;
using mlnn::ContextWindow;
using mlnn::test::batchNormLayer;
using mlnn::test::modelOf;
using mlnn::test::plainLayer;
using mlnn::test::sameBits;
using mlnn::test::someValues;

constexpr int kFrameLen = 12;
constexpr int kLeft = 12;
constexpr int kRight = 12;
constexpr int kInputs = kFrameLen * (kLeft + 1 + kRight);

// Large enough for codes, and for weights that do not stay in the nearest caches.
MultiLayerNNModel largeModel() {
  return modelOf(
      {plainLayer(kInputs, 900, 1), batchNormLayer(900, 300, 2), plainLayer(300, 17, 3)});
}

ContextWindow makeWindow() {
  DbnFeatureDescription desc(DbnFeatureDescription::MelDeltas);
  desc.winSizeLeft = kLeft;
  desc.winSizeRight = kRight;
  std::string whyNot;
  return ContextWindow::create(desc, {}, kFrameLen, whyNot).value();
}

// Frames that come in and outputs that go out.
class Stream {
 public:
  explicit Stream(FwdPass& pass)
      : pass_(pass),
        window_(makeWindow()),
        frames_(someValues(kFrameLen, 64, 4)),
        input_(kInputs) {}

  void push() {
    const float* frame = frames_.col(received_++ % frames_.cols()).data();
    if (!window_.push(frame, input_.data())) return;
    if (pass_.evaluate(input_, outputs_) != 0) ++refused_;
  }

  // The outputs of the last frame that was due, and whether none was refused.
  const MatrixXf& outputs() const { return outputs_; }
  bool isFine() const { return refused_ == 0; }

 private:
  FwdPass& pass_;
  ContextWindow window_;
  MatrixXf frames_;
  Eigen::VectorXf input_;
  MatrixXf outputs_;
  Index received_ = 0;
  int refused_ = 0;
};

void warmUp(Stream& stream) {
  for (int i = 0; i < 2 * (kLeft + kRight); ++i) stream.push();
}

// How a child ended.
enum class End { kDone, kNoFilter, kSystemCall, kOther };

// From now on a call of the system kills this process, but for the one that ends it.
bool forbidSystemCalls() {
  sock_filter rules[] = {
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_exit, 0, 1),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_KILL),
  };
  const sock_fprog program{sizeof rules / sizeof rules[0], rules};
  return prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 &&
         prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) == 0;
}

// Runs `work` in a child that must not call the system.
End withoutSystemCalls(const std::function<bool()>& work) {
  constexpr int kDone = 0;
  constexpr int kNoFilter = 1;
  constexpr int kFailed = 2;
  const pid_t child = fork();
  if (child < 0) return End::kOther;
  if (child == 0) {
    if (!forbidSystemCalls()) _exit(kNoFilter);
    syscall(SYS_exit, work() ? kDone : kFailed);
  }
  int status = 0;
  if (waitpid(child, &status, 0) != child) return End::kOther;
  if (WIFSIGNALED(status) && WTERMSIG(status) == SIGSYS) return End::kSystemCall;
  if (!WIFEXITED(status)) return End::kOther;
  if (WEXITSTATUS(status) == kNoFilter) return End::kNoFilter;
  return WEXITSTATUS(status) == kDone ? End::kDone : End::kOther;
}

// Whether the system lets itself be forbidden; where it does, a call of it is found.
bool canForbidSystemCalls() {
  const End end = withoutSystemCalls([] { return syscall(SYS_getppid) > 0; });
  if (end == End::kNoFilter) return false;
  EXPECT_EQ(end, End::kSystemCall);
  return end == End::kSystemCall;
}

void expectNoSystemCalls(FwdPass& pass) {
  Stream stream(pass);
  warmUp(stream);
  EXPECT_EQ(withoutSystemCalls([&stream] {
              for (int i = 0; i < 200; ++i) stream.push();
              return stream.isFine();
            }),
            End::kDone);
}

void expectNoAllocationsAndLocks(FwdPass& pass) {
  Stream stream(pass);
  warmUp(stream);
  const mlnn::test::AllocationWatch watch;
  const std::size_t locksBefore = locks;
  for (int i = 0; i < 200; ++i) stream.push();
  EXPECT_EQ(locks, locksBefore);
  EXPECT_EQ(watch.allocations(), 0u);
  EXPECT_TRUE(stream.isFine());
}

TEST(Streaming, aLockIsCounted) {
  const std::size_t before = locks;
  pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
  pthread_mutex_lock(&mutex);
  pthread_mutex_unlock(&mutex);
  EXPECT_EQ(locks, before + 1);
}

TEST(Streaming, takesNoMemoryAndNoLockForAFrame) {
  MultiLayerNNModel model = largeModel();
  expectNoAllocationsAndLocks(*std::unique_ptr<FwdPass>(model.createFwdPass()));
  expectNoAllocationsAndLocks(*mlnn::CodedFwdPass::create(model, 8, mlnn::CodesFor::kMemory));
}

TEST(Streaming, callsTheSystemForNoFrame) {
  if (!canForbidSystemCalls()) GTEST_SKIP() << "this system filters no system calls";
  MultiLayerNNModel model = largeModel();
  expectNoSystemCalls(*std::unique_ptr<FwdPass>(model.createFwdPass()));
  expectNoSystemCalls(*mlnn::CodedFwdPass::create(model, 4, mlnn::CodesFor::kMemory));
}

TEST(Streaming, givesTheBitsOfTheWholeRecording) {
  MultiLayerNNModel model = largeModel();
  const std::unique_ptr<FwdPass> pass(model.createFwdPass());
  const MatrixXf frames = someValues(kFrameLen, 64, 4);
  MatrixXf inputs;
  ASSERT_TRUE(makeWindow().stack(frames, inputs));
  MatrixXf expected;
  ASSERT_EQ(pass->evaluate(inputs, expected), 0);
  Stream stream(*pass);
  for (Index t = 0; t < frames.cols(); ++t) {
    stream.push();
    if (t < kRight) continue;
    EXPECT_TRUE(sameBits(stream.outputs(), expected.col(t - kRight)));
  }
}

}  // namespace
