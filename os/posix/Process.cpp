#include "os/Process.h"

#include <signal.h>
#include <unistd.h>

namespace mlnn {

long processNumber() { return getpid(); }

void startWithoutSignals(const std::function<void()>& start) {
  sigset_t all;
  sigset_t before;
  sigfillset(&all);
  for (const int own : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT, SIGTRAP}) sigdelset(&all, own);
  pthread_sigmask(SIG_BLOCK, &all, &before);
  start();
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

}  // namespace mlnn
