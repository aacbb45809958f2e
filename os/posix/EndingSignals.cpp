#include "os/EndingSignals.h"

#include <signal.h>

#include <cerrno>
#include <csignal>
#include <cstring>

namespace mlnn {
namespace {

constexpr int kSignals[] = {
    SIGINT,    SIGTERM, SIGHUP, SIGQUIT, SIGXCPU, SIGALRM, SIGUSR1, SIGUSR2, SIGVTALRM, SIGPROF,
#ifdef SIGPOLL
    SIGPOLL,
#endif
#ifdef SIGPWR
    SIGPWR,
#endif
#ifdef SIGSTKFLT
    SIGSTKFLT,
#endif
};

void (*cleanBeforeEnd)() = nullptr;

extern "C" void cleanAndDie(int signal) {
  cleanBeforeEnd();
  std::signal(signal, SIG_DFL);
  std::raise(signal);
}

}  // namespace

void callBeforeEnd(void (*clean)()) {
  if (clean != nullptr) cleanBeforeEnd = clean;
  void (*const handler)(int) = clean != nullptr ? cleanAndDie : SIG_DFL;
  for (const int signal : kSignals) {
    if (std::signal(signal, handler) == SIG_IGN) std::signal(signal, SIG_IGN);
  }
}

EndingSignalsWait::EndingSignalsWait() {
  sigset_t signals;
  sigset_t before;
  static_assert(sizeof before <= sizeof before_);
  sigemptyset(&signals);
  for (const int signal : kSignals) sigaddset(&signals, signal);
  sigprocmask(SIG_BLOCK, &signals, &before);
  std::memcpy(before_, &before, sizeof before);
}

EndingSignalsWait::~EndingSignalsWait() {
  const int error = errno;
  sigset_t before;
  std::memcpy(&before, before_, sizeof before);
  sigprocmask(SIG_SETMASK, &before, nullptr);
  errno = error;
}

}  // namespace mlnn
