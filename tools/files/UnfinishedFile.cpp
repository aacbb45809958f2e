#include "tools/files/UnfinishedFile.h"

#include <unistd.h>

#include <atomic>
#include <csignal>

namespace mlnn {
namespace {

constexpr int kSignals[] = {SIGINT, SIGTERM, SIGHUP};

// What a signal handler removes; handlers reach nothing but globals.
std::atomic<const char*> fileToRemove{nullptr};

extern "C" void removeAndDie(int signal) {
  UnfinishedFile::removeAny();
  std::signal(signal, SIG_DFL);
  std::raise(signal);
}

// A signal that the caller had ignored (as nohup does) stays ignored.
void handleSignals(void (*handler)(int)) {
  for (const int signal : kSignals) {
    if (std::signal(signal, handler) == SIG_IGN) std::signal(signal, SIG_IGN);
  }
}

}  // namespace

UnfinishedFile::~UnfinishedFile() {
  if (path_.empty()) return;
  unlink(path_.c_str());
  release();
}

void UnfinishedFile::hold(const std::string& path) {
  path_ = path;
  fileToRemove = path_.c_str();
  handleSignals(removeAndDie);
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
