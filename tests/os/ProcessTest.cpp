#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>

#include "os/Process.h"

namespace {

bool isBlocked(int signal) {
  sigset_t mask;
  pthread_sigmask(SIG_SETMASK, nullptr, &mask);
  return sigismember(&mask, signal) == 1;
}

TEST(Process, hasANumberThatAChildDoesNotHave) {
  const long own = mlnn::processNumber();
  EXPECT_EQ(own, getpid());
  const pid_t child = fork();
  if (child == 0) _exit(mlnn::processNumber() != own && mlnn::processNumber() == getpid() ? 0 : 3);
  int status = -1;
  waitpid(child, &status, 0);
  EXPECT_EQ(status, 0);
}

TEST(Process, startsThreadsThatLeaveItsSignalsToIt) {
  const bool before = isBlocked(SIGTERM);
  bool isStarted = false;
  mlnn::startWithoutSignals([&isStarted] {
    isStarted = true;
    for (const int signal : {SIGINT, SIGTERM, SIGHUP, SIGCHLD, SIGWINCH}) {
      EXPECT_TRUE(isBlocked(signal)) << signal;
    }
    for (const int own : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT}) {
      EXPECT_FALSE(isBlocked(own)) << own;
    }
  });
  EXPECT_TRUE(isStarted);
  EXPECT_EQ(isBlocked(SIGTERM), before);
}

}  // namespace
