// Every read and write of the tool fails once: the status is 1, the message names the file and
// why, and a file that was there before stays whole.
//
// The faults come from a library that is loaded before the C library's functions
// (tests/tool/FailingIo.cpp): the n-th call of a kind fails, for n = 1, 2, ...
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <tuple>
#include <vector>

#include "tests/support/SourceTree.h"
#include "tests/tool/ToolProcess.h"

namespace {

namespace fs = std::filesystem;
using mlnn::test::contentOf;
using mlnn::test::runShell;
using mlnn::test::sourcePath;
using mlnn::test::TempFolder;
using mlnn::test::ToolResult;
using testing::AnyOf;
using testing::HasSubstr;

#if defined(__SANITIZE_ADDRESS__)
constexpr bool kCanPreload = false;
#else
constexpr bool kCanPreload = true;
#endif
constexpr int kTries = 8;  // more calls of a kind than the small files here need
const std::string kOld = "what was there before\n";

struct Work {
  const char* name;
  const char* line;   // what is run; its output goes to `out`
  const char* input;  // what it reads
};

const std::vector<Work> kWork = {
    {"convert_to_image", "mlnn convert model.txt out --to binary", "model.txt"},
    {"convert_to_text", "mlnn convert image.mlnn out --to ascii", "image.mlnn"},
    {"fold", "mlnn fold model.txt out", "model.txt"},
    {"reduce", "mlnn reduce model.txt out --bits 4", "model.txt"},
    {"run", "mlnn run model.txt frames.txt --out out", "frames.txt"},
};

struct Kind {
  const char* name;
  const char* error;
};

const std::vector<Kind> kKinds = {{"read", "Input/output error"},
                                  {"write", "No space left on device"},
                                  {"open", "Too many open files"},
                                  {"close", "Input/output error"},
                                  {"rename", "Operation not permitted"}};

class Faults : public testing::TestWithParam<std::tuple<Work, Kind>> {
 protected:
  Faults() {
    fs::copy_file(sourcePath("tests/golden/version2.txt"), folder_.path("model.txt"));
    fs::copy_file(sourcePath("tests/golden/image.mlnn"), folder_.path("image.mlnn"));
    folder_.write("frames.txt", "1\n2\n3\n");
    folder_.write("out", kOld);
    names_ = folder_.names();
  }

  ToolResult runFailing(int number) {
    const auto& [work, kind] = GetParam();
    return runShell("export LD_PRELOAD='" MLNN_FAILING_IO_PATH "' MLNN_FAIL='" +
                        std::string(kind.name) + " " + std::to_string(number) + "'; " + work.line,
                    folder_.path());
  }

  TempFolder folder_;
  std::vector<std::string> names_;
};

TEST_P(Faults, leaveTheEarlierFileWhole) {
  if (!kCanPreload) GTEST_SKIP() << "the sanitizer's library must be the first one";
  const auto& [work, kind] = GetParam();
  ASSERT_EQ(runFailing(0).status, 0);
  const std::string whole = contentOf(folder_.path("out"));
  int failures = 0;
  for (int number = 1; number <= kTries; ++number) {
    folder_.write("out", kOld);
    const ToolResult result = runFailing(number);
    SCOPED_TRACE(std::string(kind.name) + " " + std::to_string(number) + ": " + result.err);
    EXPECT_EQ(folder_.names(), names_);
    if (result.status == 0) {  // there was no such call, or it was the closing of an input
      EXPECT_EQ(contentOf(folder_.path("out")), whole);
      continue;
    }
    ++failures;
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(contentOf(folder_.path("out")), kOld);
    EXPECT_THAT(result.err, HasSubstr("ERROR: cannot "));
    EXPECT_THAT(result.err, HasSubstr(std::string(": ") + kind.error + "\n"));
    EXPECT_THAT(result.err, AnyOf(HasSubstr("'out'"), HasSubstr("'model.txt'"),
                                  HasSubstr(std::string("'") + work.input + "'")));
  }
  EXPECT_GT(failures, 0);
}

std::string testName(const testing::TestParamInfo<std::tuple<Work, Kind>>& instance) {
  return std::string(std::get<0>(instance.param).name) + "_" + std::get<1>(instance.param).name;
}

void PrintTo(const Work& work, std::ostream* out) { *out << work.name; }
void PrintTo(const Kind& kind, std::ostream* out) { *out << kind.name; }

INSTANTIATE_TEST_SUITE_P(Tool, Faults,
                         testing::Combine(testing::ValuesIn(kWork), testing::ValuesIn(kKinds)),
                         testName);

// What the system itself can do to files.
class SystemFaults : public testing::Test {
 protected:
  SystemFaults() {
    fs::copy_file(sourcePath("tests/golden/version2.txt"), folder_.path("model.txt"));
    folder_.write("frames.txt", "1\n2\n3\n");
  }
  ToolResult run(const std::string& line) { return runShell(line, folder_.path()); }

  // Runs what must fail at writing to `target`, as the message calls it, for the reason `error`.
  void expectCannotWrite(const std::string& line, const std::string& target,
                         const std::string& error) {
    const ToolResult result = run(line);
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.err, HasSubstr("ERROR: cannot write " + target + ": " + error + "\n"));
  }

  TempFolder folder_;
};

TEST_F(SystemFaults, aFullDeviceIsNamed) {
  expectCannotWrite("mlnn convert model.txt /dev/full --to binary", "'/dev/full'",
                    "No space left on device");
}

TEST_F(SystemFaults, aFullStandardOutputIsNamed) {
  expectCannotWrite("mlnn info model.txt > /dev/full", "to standard output",
                    "No space left on device");
}

// What fits into the limit is written; the rest is refused, by a signal unless it is ignored.
TEST_F(SystemFaults, aFileThatGrowsTooLargeIsNamed) {
  folder_.write("out", kOld);
  const std::vector<std::string> names = folder_.names();
  const ToolResult result = run("ulimit -f 1; mlnn convert model.txt out --to binary");
  EXPECT_EQ(result.status, 1);
  EXPECT_THAT(result.err, HasSubstr("ERROR: cannot write 'out': File too large\n"));
  EXPECT_EQ(contentOf(folder_.path("out")), kOld);
  EXPECT_EQ(folder_.names(), names);
}

TEST_F(SystemFaults, aStandardOutputThatGrowsTooLargeIsNamed) {
  const ToolResult result = run("ulimit -f 1; mlnn convert model.txt - --to binary > out");
  EXPECT_EQ(result.status, 1);
  EXPECT_THAT(result.err, HasSubstr("ERROR: cannot write to standard output: File too large\n"));
}

TEST_F(SystemFaults, aFolderInPlaceOfAFileIsNamed) {
  fs::create_directory(folder_.path("folder"));
  const ToolResult result = run("mlnn info folder");
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.err, "ERROR: cannot read 'folder': Is a directory\n");
  expectCannotWrite("mlnn convert model.txt folder --to binary", "'folder'", "Is a directory");
  EXPECT_EQ(fs::is_empty(folder_.path("folder")), true);
}

TEST_F(SystemFaults, aClosedPipeIsNamed) {
  expectCannotWrite(
      "mkfifo pipe; : < pipe & exec 3> pipe; wait; mlnn convert model.txt - --to ascii >&3",
      "to standard output", "Broken pipe");
}

TEST_F(SystemFaults, aClosedStandardOutputIsNamed) {
  expectCannotWrite("mlnn info model.txt >&-", "to standard output", "Bad file descriptor");
}

// The length that a file had when it was opened is a hint and nothing more.
TEST_F(SystemFaults, aFileThatShrinksWhileItIsReadIsRefused) {
  if (!kCanPreload) GTEST_SKIP() << "the sanitizer's library must be the first one";
  folder_.write("out", kOld);
  const ToolResult result = run("export LD_PRELOAD='" MLNN_FAILING_IO_PATH
                                "' MLNN_FAIL='shrink 1'; mlnn convert model.txt out --to binary");
  EXPECT_EQ(result.status, 1);
  EXPECT_THAT(result.err, HasSubstr("ERROR: could not load the model 'model.txt'"));
  EXPECT_EQ(contentOf(folder_.path("out")), kOld);
}

// The image is open and checked when the tool opens the frames.
TEST_F(SystemFaults, anImageThatShrinksWhileItRunsIsRefused) {
  folder_.write("out", kOld);
  const ToolResult result =
      run("mlnn new 1024,64 big.mlnn --to binary 2> log && mkfifo frames || exit 9\n"
          "mlnn run big.mlnn frames --stacked --out out &\n"
          "exec 3> frames; : > big.mlnn; seq 1024 | paste -sd ' ' >&3; exec 3>&-\n"
          "wait $!");
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.err, "ERROR: cannot read 'big.mlnn': it became shorter\n");
  EXPECT_EQ(contentOf(folder_.path("out")), kOld);
}

}  // namespace
