// The command-line tool `mlnn`. Its commands: tools/commands/Commands.cpp.
#include <fcntl.h>
#include <unistd.h>

#include <csignal>
#include <new>

#include "tools/OutOfMemory.h"
#include "tools/commands/Commands.h"

namespace {

// Keeps a file that is opened later from becoming a standard stream that the caller closed.
// The stand-ins refuse to be used, so that output to a closed stream is still an error.
void occupyClosedStandardStreams() {
  for (const int descriptor : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
    if (fcntl(descriptor, F_GETFD) != -1) continue;
    const int mode = descriptor == STDIN_FILENO ? O_WRONLY : O_RDONLY;
    if (open("/dev/null", mode) != descriptor) return;
  }
}

}  // namespace

int main(int argc, char** argv) {
  occupyClosedStandardStreams();
  std::signal(SIGPIPE, SIG_IGN);  // a closed pipe shows as a failed write, with its message
  std::signal(SIGXFSZ, SIG_IGN);  // as does a file that reaches the largest size that is allowed

  try {
    mlnn::Tool tool;
    mlnn::addCommands(tool);
    return tool.run(argc, argv);
  } catch (const std::bad_alloc&) {  // what the options are takes memory, too, and so do messages
    mlnn::printOutOfMemory();
    return mlnn::kRefused;
  }
}
