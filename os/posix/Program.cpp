#include "os/Program.h"

#include <fcntl.h>
#include <stdlib.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>

namespace mlnn {
namespace {

// The stand-ins refuse to be used, so that output to a closed stream is still an error.
void occupyClosedStandardStreams() {
  for (const int descriptor : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
    if (fcntl(descriptor, F_GETFD) != -1) continue;
    const int mode = descriptor == STDIN_FILENO ? O_WRONLY : O_RDONLY;
    if (open("/dev/null", mode) != descriptor) return;
  }
}

}  // namespace

void beginProgram() {
  occupyClosedStandardStreams();
  std::signal(SIGPIPE, SIG_IGN);
#ifdef SIGXFSZ
  std::signal(SIGXFSZ, SIG_IGN);
#endif
}

std::vector<std::string> wordsOf(int argc, const char* const* argv) { return {argv, argv + argc}; }

void endAtOnce(const char* text, int status) {
  // The streams may not be there yet. Where nothing can be written, the status must do.
  static_cast<void>(!write(STDERR_FILENO, text, std::strlen(text)));
  _exit(status);
}

void setDefault(const char* variable, const char* value) { setenv(variable, value, 0); }

int becomeProgram(const std::vector<std::string>& words) {
  std::vector<std::string> line = words;
  std::vector<char*> arguments;
  arguments.reserve(line.size() + 1);
  for (std::string& word : line) arguments.push_back(word.data());
  arguments.push_back(nullptr);
  execvp(arguments[0], arguments.data());
  return errno;
}

}  // namespace mlnn
