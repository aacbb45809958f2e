// The command-line tool `mlnn`. Each command is a file of its own that adds itself.
#include <fcntl.h>
#include <unistd.h>

#include <csignal>

#include "tools/CheckCommand.h"
#include "tools/CompareCommand.h"
#include "tools/ConvertCommand.h"
#include "tools/DiffCommand.h"
#include "tools/InfoCommand.h"
#include "tools/RunCommand.h"
#include "tools/Tool.h"

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

  // One line for each command, in the order in which the help lists them.
  mlnn::Tool tool;
  mlnn::addRunCommand(tool);
  mlnn::addInfoCommand(tool);
  mlnn::addCheckCommand(tool);
  mlnn::addConvertCommand(tool);
  mlnn::addDiffCommand(tool);
  mlnn::addCompareCommand(tool);
  return tool.run(argc, argv);
}
