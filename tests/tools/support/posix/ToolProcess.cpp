#include "tests/tools/support/ToolProcess.h"

#include <fcntl.h>
#include <pty.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <system_error>

namespace fs = std::filesystem;

namespace mlnn::test {
namespace {

[[noreturn]] void failWithErrno(const char* what) {
  throw std::system_error(errno, std::generic_category(), what);
}

// In the child: connects the standard streams to the files and becomes the program.
[[noreturn]] void become(const std::vector<std::string>& command, const TempFolder& streams,
                         const std::string& folder, unsigned processorSeconds) {
  const int in = open(streams.path("in").c_str(), O_RDONLY);
  const int out = open(streams.path("out").c_str(), O_WRONLY | O_CREAT, 0600);
  const int err = open(streams.path("err").c_str(), O_WRONLY | O_CREAT, 0600);
  std::vector<char*> arguments;
  for (const std::string& argument : command) {
    arguments.push_back(const_cast<char*>(argument.c_str()));
  }
  arguments.push_back(nullptr);
  const rlimit limit{processorSeconds, processorSeconds};
  if (processorSeconds != 0) setrlimit(RLIMIT_CPU, &limit);
  const bool ready = dup2(in, 0) == 0 && dup2(out, 1) == 1 && dup2(err, 2) == 2 &&
                     (folder.empty() || chdir(folder.c_str()) == 0);
  if (ready) execv(arguments[0], arguments.data());
  _exit(127);
}

double secondsOf(const timeval& time) {
  return static_cast<double>(time.tv_sec) + 1e-6 * static_cast<double>(time.tv_usec);
}

ToolResult runCommand(const std::vector<std::string>& command, const std::string& input,
                      const std::string& folder, unsigned processorSeconds = 0) {
  const TempFolder streams;
  streams.write("in", input);
  const pid_t child = fork();
  if (child < 0) failWithErrno("fork");
  if (child == 0) become(command, streams, folder, processorSeconds);
  int status = 0;
  rusage used{};
  while (wait4(child, &status, 0, &used) < 0) {
    if (errno != EINTR) failWithErrno("wait4");
  }
  return {WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status),
          contentOf(streams.path("out")), contentOf(streams.path("err")),
          secondsOf(used.ru_utime) + secondsOf(used.ru_stime),
          static_cast<std::size_t>(used.ru_maxrss) << 10};
}

std::vector<std::string> toolWith(const std::vector<std::string>& arguments) {
  std::vector<std::string> command = {MLNN_TOOL_PATH};
  command.insert(command.end(), arguments.begin(), arguments.end());
  return command;
}

}  // namespace

ToolResult runTool(const std::vector<std::string>& arguments, const std::string& input,
                   const std::string& folder) {
  return runCommand(toolWith(arguments), input, folder);
}

ToolResult runToolWith(const std::string& variable, const std::string& value,
                       const std::vector<std::string>& arguments, const std::string& input) {
  if (setenv(variable.c_str(), value.c_str(), 1) != 0) failWithErrno("setenv");
  const ToolResult result = runTool(arguments, input);
  unsetenv(variable.c_str());
  return result;
}

ToolResult runToolAtMost(unsigned processorSeconds, const std::vector<std::string>& arguments,
                         const std::string& folder) {
  return runCommand(toolWith(arguments), "", folder, processorSeconds);
}

ToolResult runShell(const std::string& line, const std::string& folder) {
  const std::string path = fs::path(MLNN_TOOL_PATH).parent_path().string();
  const std::string prefix = "PATH='" + path + "':\"$PATH\"\n";
  return runCommand({"/bin/sh", "-c", prefix + line}, "", folder);
}

std::string shownOnTerminal(const std::string& line, unsigned short width,
                            const std::string& folder) {
  winsize size{};
  size.ws_row = 50;
  size.ws_col = width;
  int screen = -1;
  int terminal = -1;
  if (openpty(&screen, &terminal, nullptr, nullptr, &size) != 0) failWithErrno("openpty");
  const ToolResult result = runShell(line + " > " + ttyname(terminal), folder);
  close(terminal);
  std::string shown;
  char bytes[4096];
  for (ssize_t count = 0; (count = read(screen, bytes, sizeof bytes)) > 0;) {
    shown.append(bytes, static_cast<std::size_t>(count));
  }
  close(screen);
  if (result.status != 0) throw std::runtime_error(line + ": " + result.err);
  return shown;
}

}  // namespace mlnn::test
