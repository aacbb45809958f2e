#include "tools/files/UnfinishedFile.h"

#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <filesystem>
#include <utility>

namespace mlnn {
namespace {

constexpr int kSignals[] = {SIGINT, SIGTERM, SIGHUP};

// What a signal handler removes; handlers reach nothing but globals.
std::atomic<const char*> fileToRemove{nullptr};

std::atomic<bool> areSignalsHandled{true};

extern "C" void removeAndDie(int signal) {
  UnfinishedFile::removeAny();
  std::signal(signal, SIG_DFL);
  std::raise(signal);
}

// A signal that the caller had ignored (as nohup does) stays ignored.
void handleSignals(void (*handler)(int)) {
  if (!areSignalsHandled) return;
  for (const int signal : kSignals) {
    if (std::signal(signal, handler) == SIG_IGN) std::signal(signal, SIG_IGN);
  }
}

// While it lives, the signals that end the process wait.
class SignalsWait {
 public:
  SignalsWait() {
    sigset_t signals;
    sigemptyset(&signals);
    for (const int signal : kSignals) sigaddset(&signals, signal);
    sigprocmask(SIG_BLOCK, &signals, &before_);
  }
  ~SignalsWait() {
    const int error = errno;
    sigprocmask(SIG_SETMASK, &before_, nullptr);
    errno = error;
  }
  SignalsWait(const SignalsWait&) = delete;
  SignalsWait& operator=(const SignalsWait&) = delete;

 private:
  sigset_t before_;
};

}  // namespace

UnfinishedFile::~UnfinishedFile() {
  if (path_.empty()) return;
  unlink(path_.c_str());
  release();
}

void UnfinishedFile::leaveSignalsAlone() { areSignalsHandled = false; }

// Nothing that takes memory stands behind the making of the file.
FileDescriptor UnfinishedFile::makeIn(const std::string& folder) {
  std::string path = (std::filesystem::path(folder) / ".mlnn-XXXXXX").string();
  const SignalsWait wait;
  FileDescriptor descriptor(mkostemp(path.data(), O_CLOEXEC));
  if (!descriptor.isOpen()) return descriptor;
  path_ = std::move(path);
  fileToRemove = path_.c_str();
  handleSignals(removeAndDie);
  return descriptor;
}

void UnfinishedFile::release() {
  fileToRemove = nullptr;
  handleSignals(SIG_DFL);
  path_.clear();
}

void UnfinishedFile::removeAny() noexcept {
  if (const char* path = fileToRemove.load()) unlink(path);
}

}  // namespace mlnn
