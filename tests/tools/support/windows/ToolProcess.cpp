#include "tests/tools/support/ToolProcess.h"

#include <stdexcept>
#include <system_error>

#include "os/windows/Handle.h"
#include "os/windows/WideText.h"
#include "tests/tools/support/windows/CommandLine.h"

namespace mlnn::test {
namespace {

[[noreturn]] void failWithLastError(const char* what) {
  throw std::system_error(static_cast<int>(GetLastError()), std::system_category(), what);
}

// A file that the process may have as a standard stream.
HANDLE openStream(const std::string& name, DWORD access) {
  SECURITY_ATTRIBUTES inherited{sizeof inherited, nullptr, TRUE};
  HANDLE const file =
      CreateFileW(wideOf(name).c_str(), access, kShareAll, &inherited,
                  access == GENERIC_READ ? OPEN_EXISTING : CREATE_ALWAYS, 0, nullptr);
  if (file == INVALID_HANDLE_VALUE) failWithLastError("CreateFile");
  return file;
}

double secondsOf(const FILETIME& time) {
  return 1e-7 * static_cast<double>(uint64_t{time.dwHighDateTime} << 32 | time.dwLowDateTime);
}

double processorSecondsOf(HANDLE process) {
  FILETIME begin;
  FILETIME end;
  FILETIME kernel;
  FILETIME user;
  if (GetProcessTimes(process, &begin, &end, &kernel, &user) == 0) return 0;
  return secondsOf(kernel) + secondsOf(user);
}

ToolResult resultOf(HANDLE process, const TempFolder& streams) {
  WaitForSingleObject(process, INFINITE);
  DWORD status = 0;
  GetExitCodeProcess(process, &status);
  return {static_cast<int>(status), contentOf(streams.path("out")), contentOf(streams.path("err")),
          processorSecondsOf(process), 0};
}

}  // namespace

ToolResult runTool(const std::vector<std::string>& arguments, const std::string& input,
                   const std::string& folder) {
  const TempFolder streams;
  streams.write("in", input);
  const Handle in(openStream(streams.path("in"), GENERIC_READ));
  const Handle out(openStream(streams.path("out"), GENERIC_WRITE));
  const Handle err(openStream(streams.path("err"), GENERIC_WRITE));
  STARTUPINFOW start{};
  start.cb = sizeof start;
  start.dwFlags = STARTF_USESTDHANDLES;
  start.hStdInput = in.get();
  start.hStdOutput = out.get();
  start.hStdError = err.get();
  std::wstring line = toolLine(arguments);
  PROCESS_INFORMATION started{};
  if (CreateProcessW(nullptr, line.data(), nullptr, nullptr, TRUE, 0, nullptr,
                     folder.empty() ? nullptr : wideOf(folder).c_str(), &start, &started) == 0) {
    failWithLastError("CreateProcess");
  }
  const Handle process(started.hProcess);
  const Handle thread(started.hThread);
  return resultOf(process.get(), streams);
}

ToolResult runToolWith(const std::string& variable, const std::string& value,
                       const std::vector<std::string>& arguments, const std::string& input) {
  if (SetEnvironmentVariableW(wideOf(variable).c_str(), wideOf(value).c_str()) == 0) {
    failWithLastError("SetEnvironmentVariable");
  }
  const ToolResult result = runTool(arguments, input);
  SetEnvironmentVariableW(wideOf(variable).c_str(), nullptr);
  return result;
}

ToolResult runToolAtMost(unsigned, const std::vector<std::string>&, const std::string&) {
  throw std::logic_error("runToolAtMost: nothing ends a process by its time here");
}

ToolResult runShell(const std::string&, const std::string&) {
  throw std::logic_error("runShell: there is no such shell here");
}

std::string shownOnTerminal(const std::string&, unsigned short, const std::string&) {
  throw std::logic_error("shownOnTerminal: there is no such terminal here");
}

}  // namespace mlnn::test
