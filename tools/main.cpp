// The command-line tool `mlnn`. Its commands: tools/commands/Commands.cpp.
#include <fcntl.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <exception>
#include <new>

#include "tools/OutOfMemory.h"
#include "tools/commands/Commands.h"
#include "tools/files/UnfinishedFile.h"

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

// What nobody catches ends here: memory that runs out before main, while the objects are made
// that the options' library keeps for the whole program; or that is too short even for throwing.
[[noreturn]] void endInOrder() {
  try {
    if (std::current_exception()) throw;
  } catch (const std::bad_alloc&) {
  } catch (...) {
    std::abort();
  }
  mlnn::UnfinishedFile::removeAny();
  // The streams may not be there yet. Where nothing can be written, the status must do.
  static_cast<void>(!write(STDERR_FILENO, mlnn::kOutOfMemory, sizeof mlnn::kOutOfMemory - 1));
  _exit(mlnn::kRefused);
}

// Before all of those objects, whose priority is the lowest.
__attribute__((constructor(101))) void endInOrderFromTheStart() { std::set_terminate(endInOrder); }

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
