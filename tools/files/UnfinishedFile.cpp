#include "tools/files/UnfinishedFile.h"

#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <filesystem>
#include <memory>
#include <utility>

namespace mlnn {
namespace {

// Those that others send and that end a process. What the process does to itself, as SIGSEGV and
// SIGABRT, is not among them, and SIGPIPE is ignored.
constexpr int kSignals[] = {SIGINT,  SIGTERM,   SIGHUP,  SIGQUIT, SIGXCPU, SIGALRM,  SIGUSR1,
                            SIGUSR2, SIGVTALRM, SIGPROF, SIGPOLL, SIGPWR,  SIGSTKFLT};

// What a signal handler removes, null where there is nothing; handlers reach nothing but globals.
std::array<std::atomic<const char*>, UnfinishedFile::kMost> filesToRemove{};
std::size_t filesHeld = 0;

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

UnfinishedFile::UnfinishedFile(UnfinishedFile&& other) noexcept
    : path_(std::move(other.path_)), place_(other.place_) {}

UnfinishedFile::~UnfinishedFile() {
  if (path_ == nullptr) return;
  unlink(path_->c_str());
  release();
}

void UnfinishedFile::leaveSignalsAlone() { areSignalsHandled = false; }

const std::string& UnfinishedFile::path() const {
  static const std::string none;
  return path_ != nullptr ? *path_ : none;
}

// Nothing that takes memory stands behind the making of the file.
FileDescriptor UnfinishedFile::makeIn(const std::string& folder) {
  const auto free = std::find(filesToRemove.begin(), filesToRemove.end(), nullptr);
  if (free == filesToRemove.end()) {
    errno = EMFILE;
    return FileDescriptor();
  }
  auto path =
      std::make_unique<std::string>((std::filesystem::path(folder) / ".mlnn-XXXXXX").string());
  const SignalsWait wait;
  FileDescriptor descriptor(mkostemp(path->data(), O_CLOEXEC));
  if (!descriptor.isOpen()) return descriptor;
  path_ = std::move(path);
  place_ = static_cast<std::size_t>(free - filesToRemove.begin());
  *free = path_->c_str();
  if (filesHeld++ == 0) handleSignals(removeAndDie);
  return descriptor;
}

void UnfinishedFile::release() {
  const SignalsWait wait;  // for a moment, ignored ones are not
  filesToRemove[place_] = nullptr;
  if (--filesHeld == 0) handleSignals(SIG_DFL);
  path_.reset();
}

void UnfinishedFile::removeAny() noexcept {
  for (const std::atomic<const char*>& file : filesToRemove) {
    if (const char* path = file.load()) unlink(path);
  }
}

}  // namespace mlnn
