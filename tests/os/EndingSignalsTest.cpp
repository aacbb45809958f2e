#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>

#include "os/EndingSignals.h"

namespace {

void say(const char* text) { static_cast<void>(!write(STDERR_FILENO, text, std::strlen(text))); }

void clean() { say("cleaned. "); }

TEST(EndingSignals, endTheProcessAfterItIsClean) {
  for (const int signal : {SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGUSR1}) {
    EXPECT_EXIT(
        {
          std::signal(signal, SIG_DFL);  // whatever who started the test ignores, as nohup does
          mlnn::callBeforeEnd(clean);
          std::raise(signal);
          _exit(3);
        },
        testing::KilledBySignal(signal), "^cleaned. $");
  }
}

TEST(EndingSignals, stayIgnored) {
  EXPECT_EXIT(
      {
        std::signal(SIGHUP, SIG_IGN);
        mlnn::callBeforeEnd(clean);
        std::raise(SIGHUP);
        _exit(3);
      },
      testing::ExitedWithCode(3), "^$");
}

TEST(EndingSignals, cleanNothingAnyMore) {
  EXPECT_EXIT(
      {
        mlnn::callBeforeEnd(clean);
        mlnn::callBeforeEnd(nullptr);
        std::raise(SIGTERM);
        _exit(3);
      },
      testing::KilledBySignal(SIGTERM), "^$");
}

TEST(EndingSignals, waitUntilTheyMayCome) {
  EXPECT_EXIT(
      {
        mlnn::callBeforeEnd(clean);
        {
          const mlnn::EndingSignalsWait wait;
          std::raise(SIGTERM);
          say("done. ");
        }
        _exit(3);
      },
      testing::KilledBySignal(SIGTERM), "^done. cleaned. $");
}

TEST(EndingSignals, leaveTheErrorAsItIs) {
  {
    const mlnn::EndingSignalsWait wait;
    errno = ENOSPC;
  }
  EXPECT_EQ(errno, ENOSPC);
}

}  // namespace
