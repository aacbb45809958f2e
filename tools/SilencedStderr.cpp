#include "tools/SilencedStderr.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>

namespace mlnn {

SilencedStderr::SilencedStderr() : shown_(fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 0)) {
  if (shown_ < 0) return;
  std::fflush(stderr);
  const int nowhere = open("/dev/null", O_WRONLY | O_CLOEXEC);
  if (nowhere < 0) return;
  dup2(nowhere, STDERR_FILENO);
  close(nowhere);
}

SilencedStderr::~SilencedStderr() {
  if (shown_ < 0) return;
  std::fflush(stderr);
  dup2(shown_, STDERR_FILENO);
  close(shown_);
}

}  // namespace mlnn
