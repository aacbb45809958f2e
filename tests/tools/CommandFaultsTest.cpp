// Every command of the tool while something fails: a call of each kind, an allocation, and SIGTERM
// right behind each call. The file that was there stays whole, or is the new one, and nothing is
// left beside it. tests/tools/FaultTest.cpp looks closer at what some commands say then.
//
// The commands are those of the tool's own list; those that become a program of Python are left to
// python/tests/test_convert.py. Some calls fail here, and all, with every option, where the
// environment sets MLNN_EXHAUSTIVE: scripts/check-all faults does.
#include <gtest/gtest.h>

#include <csignal>
#include <filesystem>
#include <string>
#include <vector>

#include "tests/support/Extent.h"
#include "tests/tools/support/CommandLines.h"
#include "tests/tools/support/ToolBuild.h"
#include "tests/tools/support/ToolProcess.h"

namespace {

namespace fs = std::filesystem;
using mlnn::test::commandLines;
using mlnn::test::commandNames;
using mlnn::test::contentOf;
using mlnn::test::kResultName;
using mlnn::test::runShell;
using mlnn::test::TempFolder;
using mlnn::test::toolHasSanitizers;
using mlnn::test::ToolResult;
using mlnn::test::TriedLine;
using mlnn::test::triesEverything;

const std::string kOld = "what was there before\n";
const char* const kKinds[] = {"read",  "write",  "open",   "fsync",    "syncfs",
                              "close", "rename", "malloc", "terminate"};

// How far the number of the call that fails goes on after this one: the first few calls are tried
// each, since there are few of most kinds.
int step(int number) {
  constexpr int kEach = 5;
  constexpr int kSample = 401;
  return triesEverything() || number < kEach ? 1 : kSample;
}

bool startsPython(const std::string& command) { return command.find("onnx") != std::string::npos; }

std::string quoted(const std::vector<std::string>& words) {
  std::string line;
  for (const std::string& word : words) line += " '" + word + "'";
  return line;
}

// Whether two runs of the line say different things because they took different times.
bool tellsTimes(const TriedLine& line) { return line.arguments.front() == "budget"; }

class CommandFaults : public testing::TestWithParam<std::string> {
 protected:
  // Runs the line in a folder that has what it had at first, while a call fails; 0 for none.
  ToolResult run(const TriedLine& line, const std::string& kind, int number) {
    fs::remove_all(folder_.path("traced"));
    folder_.write(kResultName, kOld);
    return runShell("export LD_PRELOAD='" MLNN_FAILING_IO_PATH "' MLNN_FAIL='" + kind + " " +
                        std::to_string(number) + "'; exec mlnn" + quoted(line.arguments),
                    folder_.path());
  }

  // The names of all files but those of a trace, which appear one by one.
  std::vector<std::string> names() const {
    fs::remove_all(folder_.path("traced"));
    return folder_.names();
  }

  std::string result() const { return contentOf(folder_.path(kResultName)); }

  // Lets each call of the kind fail in turn, up to the first that is not there.
  void expectNothingLost(const TriedLine& line, const std::string& kind) {
    const ToolResult whole = run(line, kind, 0);
    const std::string wholeResult = result();
    const std::vector<std::string> wholeNames = names();
    const int killed = kind == "terminate" ? 128 + SIGTERM : whole.status;
    int passes = 0;
    for (int number = 1; passes < 2; number += step(number)) {
      const ToolResult failed = run(line, kind, number);
      SCOPED_TRACE(line.name + ", " + kind + " " + std::to_string(number) + ": " + failed.err);
      EXPECT_TRUE(failed.status <= 2 || failed.status == killed) << failed.status;
      EXPECT_TRUE(result() == kOld || result() == wholeResult);
      EXPECT_EQ(names(), wholeNames);
      const bool saysTheSame = failed.out == whole.out || tellsTimes(line);
      const bool passed = failed.status == whole.status && saysTheSame;
      passes = passed ? passes + 1 : 0;  // the closing of an input may fail unnoticed
    }
  }

  TempFolder folder_;
};

TEST_P(CommandFaults, loseNothingAndLeaveNothing) {
  if (toolHasSanitizers()) GTEST_SKIP() << "the sanitizer's library must be the first one";
  if (startsPython(GetParam())) return;
  mlnn::test::makeInputs(folder_);
  for (const TriedLine& line : commandLines(GetParam())) {
    for (const char* kind : kKinds) expectNothingLost(line, kind);
    if (!triesEverything()) return;
  }
}

INSTANTIATE_TEST_SUITE_P(Tool, CommandFaults, testing::ValuesIn(commandNames()),
                         [](const auto& instance) {
                           std::string name = instance.param;
                           for (char& c : name) c = c == '-' ? '_' : c;
                           return name;
                         });

}  // namespace
