// Ctrl-C at the console in which the tool runs.
#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "os/windows/Handle.h"
#include "os/windows/WideText.h"
#include "tests/support/SourceTree.h"
#include "tests/support/TempFolder.h"
#include "tests/tools/support/windows/CommandLine.h"

namespace mlnn {
namespace {

using test::contentOf;
using test::sourcePath;
using test::TempFolder;

constexpr DWORD kPatience = 60000;  // milliseconds; far more than any of it takes

// A pipe of a name, which a program opens as a file.
class NamedPipe {
 public:
  NamedPipe()
      : name_("//./pipe/mlnn-test-" + std::to_string(GetCurrentProcessId()) + ".npy"),
        pipe_(CreateNamedPipeW(wideOf(name_).c_str(), PIPE_ACCESS_OUTBOUND, PIPE_TYPE_BYTE, 1,
                               1 << 16, 1 << 16, 0, nullptr)) {}

  bool isOpen() const { return pipe_.isOpen(); }
  const std::string& name() const { return name_; }
  void waitForReader() { ConnectNamedPipe(pipe_.get(), nullptr); }
  void write(const std::string& bytes) {
    DWORD written = 0;
    WriteFile(pipe_.get(), bytes.data(), static_cast<DWORD>(bytes.size()), &written, nullptr);
  }

 private:
  std::string name_;
  Handle pipe_;
};

// Starts the tool in a console of its own, which nobody sees.
HANDLE startInConsole(const std::vector<std::string>& arguments, DWORD& number) {
  std::wstring line = test::toolLine(arguments);
  STARTUPINFOW start{};
  start.cb = sizeof start;
  PROCESS_INFORMATION started{};
  if (CreateProcessW(nullptr, line.data(), nullptr, nullptr, FALSE, CREATE_NO_WINDOW, nullptr,
                     nullptr, &start, &started) == 0) {
    return nullptr;
  }
  CloseHandle(started.hThread);
  number = started.dwProcessId;
  return started.hProcess;
}

// As the key does, for all in the console of that process but this one.
bool pressControlC(DWORD number) {
  FreeConsole();
  if (AttachConsole(number) == 0) return false;
  SetConsoleCtrlHandler(nullptr, TRUE);
  const bool isPressed = GenerateConsoleCtrlEvent(CTRL_C_EVENT, 0) != 0;
  FreeConsole();
  return isPressed;
}

bool waitForFiles(const TempFolder& folder, std::size_t count) {
  for (DWORD waited = 0; waited < kPatience; waited += 10) {
    if (folder.names().size() >= count) return true;
    Sleep(10);
  }
  return false;
}

// The second recording never ends: its result is begun, and is not there afterwards.
TEST(Interrupt, keepsWhatIsFinishedAndRemovesWhatIsNot) {
  const TempFolder results;
  const std::string model = sourcePath("examples/digits/synth.txt");
  const std::string recording = sourcePath("examples/digits/frames/3_en-us_f4.npy");
  NamedPipe pipe;
  ASSERT_TRUE(pipe.isOpen());
  DWORD number = 0;
  const Handle process(
      startInConsole({"run", model, recording, pipe.name(), "-o", results.path()}, number));
  ASSERT_TRUE(process.isOpen());
  pipe.waitForReader();
  const std::string bytes = contentOf(recording);
  pipe.write(bytes.substr(0, bytes.size() / 2));
  ASSERT_TRUE(waitForFiles(results, 2));
  EXPECT_TRUE(pressControlC(number));
  ASSERT_EQ(WaitForSingleObject(process.get(), kPatience), WAIT_OBJECT_0);
  DWORD status = 0;
  GetExitCodeProcess(process.get(), &status);
  EXPECT_TRUE(status == static_cast<DWORD>(STATUS_CONTROL_C_EXIT) || status == 0)  // 0 by wine
      << status;
  EXPECT_EQ(results.names(), std::vector<std::string>{"3_en-us_f4.npy"});
}

}  // namespace
}  // namespace mlnn
