// Every read and write of the tool fails once: the status tells, the message names the file and
// why, and a file that was there before stays whole. (Those of export-onnx and import-onnx are the
// Python package's, which the tool becomes; python/tests/test_convert.py lets them fail.)
//
// The faults come from a library that is loaded before the C library's functions
// (tests/tools/support/FailingIo.cpp): the n-th call of a kind fails, for n = 1, 2, ...
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <map>
#include <regex>
#include <set>
#include <string>
#include <tuple>
#include <vector>

#include "tests/support/Extent.h"
#include "tests/support/SourceTree.h"
#include "tests/tools/support/ToolBuild.h"
#include "tests/tools/support/ToolProcess.h"
#include "tools/ExitStatus.h"

namespace {

namespace fs = std::filesystem;
using mlnn::test::contentOf;
using mlnn::test::runShell;
using mlnn::test::sourcePath;
using mlnn::test::TempFolder;
using mlnn::test::toolHasSanitizers;
using mlnn::test::ToolResult;
using mlnn::test::triesSample;
using testing::AnyOf;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;

constexpr int kTries = 8;  // more calls of a kind than the small files here need
const std::string kOld = "what was there before\n";

struct Work {
  const char* name;
  const char* line;   // what is run; its output goes to `out`
  const char* input;  // what it reads; "" for nothing
};

const std::vector<Work> kWork = {
    {"convert_to_image", "mlnn convert model.txt out --to binary", "model.txt"},
    {"convert_to_text", "mlnn convert image.mlnn out --to ascii", "image.mlnn"},
    {"convert_to_c", "mlnn convert model.txt out --to c-array", "model.txt"},
    {"fold", "mlnn fold model.txt out", "model.txt"},
    {"fold_prove", "mlnn fold model.txt out --prove frames.txt", "frames.txt"},
    {"reduce", "mlnn reduce model.txt out --bits 4", "model.txt"},
    {"average", "mlnn average model.txt other.txt out --to ascii", "other.txt"},
    {"edit", "mlnn edit image.mlnn out --scale 0.5 --to binary", "image.mlnn"},
    {"new", "mlnn new 3,2 out", ""},
    {"plot", "mlnn plot model.txt --out out", "model.txt"},
    {"report", "mlnn report model.txt --frames frames.txt --out out", "frames.txt"},
    {"run", "mlnn run model.txt frames.txt --out out", "frames.txt"},
    {"run_image", "mlnn run image.mlnn frames.txt --out out", "frames.txt"},
};

struct Kind {
  const char* name;
  const char* error;
};

const std::vector<Kind> kKinds = {
    {"read", "Input/output error"},  {"write", "No space left on device"},
    {"open", "Too many open files"}, {"fsync", "Input/output error"},
    {"close", "Input/output error"}, {"rename", "Operation not permitted"}};

// Makes the files that the command lines read.
void makeInputs(const TempFolder& folder) {
  fs::copy_file(sourcePath("tests/golden/version2.txt"), folder.path("model.txt"));
  fs::copy_file(sourcePath("tests/golden/version2.txt"), folder.path("other.txt"));
  fs::copy_file(sourcePath("tests/golden/image.mlnn"), folder.path("image.mlnn"));
  folder.write("frames.txt", "1\n2\n3\n");
  folder.write("labels.csv", "file,label\nframes.txt,0\n");
}

// Runs the line in the folder, while the call of this kind and number fails; 0 for none.
ToolResult runWithFault(const TempFolder& folder, const Kind& kind, int number,
                        const std::string& line) {
  return runShell("export LD_PRELOAD='" MLNN_FAILING_IO_PATH "' MLNN_FAIL='" +
                      std::string(kind.name) + " " + std::to_string(number) + "'; " + line,
                  folder.path());
}

class Faults : public testing::TestWithParam<std::tuple<Work, Kind>> {
 protected:
  Faults() {
    makeInputs(folder_);
    folder_.write("out", kOld);
    names_ = folder_.names();
  }

  ToolResult runFailing(int number) {
    const auto& [work, kind] = GetParam();
    return runWithFault(folder_, kind, number, work.line);
  }

  TempFolder folder_;
  std::vector<std::string> names_;
};

TEST_P(Faults, leaveTheEarlierFileWhole) {
  if (toolHasSanitizers()) GTEST_SKIP() << "the sanitizer's library must be the first one";
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
  const bool hasSuchCalls = *work.input != '\0' || std::string(kind.name) != "read";
  EXPECT_EQ(failures > 0, hasSuchCalls);
}

std::string testName(const testing::TestParamInfo<std::tuple<Work, Kind>>& instance) {
  return std::string(std::get<0>(instance.param).name) + "_" + std::get<1>(instance.param).name;
}

void PrintTo(const Work& work, std::ostream* out) { *out << work.name; }
void PrintTo(const Kind& kind, std::ostream* out) { *out << kind.name; }

INSTANTIATE_TEST_SUITE_P(Tool, Faults,
                         testing::Combine(testing::ValuesIn(kWork), testing::ValuesIn(kKinds)),
                         testName);

// A command that writes to the standard output alone.
struct Report {
  const char* name;
  const char* line;
  std::vector<std::string> inputs;  // what it reads, in this order
  int failureStatus = mlnn::kRefused;
};

// Those that compare say with status 1 that there are differences.
const std::vector<Report> kReports = {
    {"budget", "mlnn budget model.txt --seconds 0.001", {"model.txt"}},
    {"check",
     "mlnn check model.txt --digest --against model.digest",
     {"model.txt", "model.digest"}},
    {"compare", "mlnn compare ours theirs", {"ours/outputs.npy", "theirs/outputs.npy"}, 2},
    {"diff",
     "mlnn diff model.txt other.txt --frames frames.txt",
     {"model.txt", "other.txt", "frames.txt"},
     2},
    {"info", "mlnn info image.mlnn", {"image.mlnn"}},
    {"plot", "mlnn plot image.mlnn", {"image.mlnn"}},
    {"prove", "mlnn fold model.txt /dev/null --prove frames.txt", {"model.txt", "frames.txt"}},
    {"report",
     "mlnn report model.txt --against other.txt --frames frames.txt",
     {"model.txt", "other.txt", "frames.txt"}},
    {"run", "mlnn run model.txt frames.txt", {"model.txt", "frames.txt"}},
    {"sweep",
     "mlnn reduce model.txt --sweep 1..2 --frames frames.txt --labels labels.csv",
     {"model.txt", "labels.csv", "frames.txt"}},
};

class ReportFaults : public testing::TestWithParam<Report> {
 protected:
  ReportFaults() {
    makeInputs(folder_);
    const ToolResult made = runShell(
        "mlnn check model.txt --digest > model.digest && mkdir ours theirs &&\n"
        "mlnn run model.txt frames.txt --out ours/outputs.npy &&\n"
        "cp ours/outputs.npy theirs",
        folder_.path());
    EXPECT_EQ(made.status, 0) << made.err;
  }

  // Lets each call of the kind fail in turn, and returns the files that the messages named.
  std::vector<std::string> filesNamed(const Kind& kind) {
    std::vector<std::string> named;
    for (int number = 1; number <= kTries; ++number) {
      const ToolResult result = runWithFault(folder_, kind, number, GetParam().line);
      SCOPED_TRACE(std::string(kind.name) + " " + std::to_string(number) + ": " + result.err);
      if (result.status == 0) continue;
      EXPECT_EQ(result.status, GetParam().failureStatus);
      EXPECT_EQ(result.out, "");
      const std::string file = fileThatCannotBeRead(result.err, kind.error);
      if (named.empty() || named.back() != file) named.push_back(file);
    }
    return named;
  }

  TempFolder folder_;

 private:
  // The message comes last; "" where it is not there.
  static std::string fileThatCannotBeRead(const std::string& messages, const std::string& error) {
    const std::regex message("ERROR: cannot read '(.*)': " + error + "\n$");
    std::smatch found;
    return std::regex_search(messages, found, message) ? found[1].str() : "";
  }
};

TEST_P(ReportFaults, inReadingNameTheFile) {
  if (toolHasSanitizers()) GTEST_SKIP() << "the sanitizer's library must be the first one";
  ASSERT_EQ(runShell(GetParam().line, folder_.path()).status, 0);
  for (const Kind& kind : kKinds) {
    const std::string name = kind.name;
    if (name != "read" && name != "open") continue;
    EXPECT_EQ(filesNamed(kind), GetParam().inputs) << name;
  }
}

TEST_P(ReportFaults, inWritingNameTheStandardOutput) {
  const ToolResult result = runShell(std::string(GetParam().line) + " > /dev/full", folder_.path());
  EXPECT_EQ(result.status, GetParam().failureStatus);
  EXPECT_THAT(result.err,
              HasSubstr("ERROR: cannot write to standard output: No space left on device\n"));
}

void PrintTo(const Report& report, std::ostream* out) { *out << report.name; }

INSTANTIATE_TEST_SUITE_P(Tool, ReportFaults, testing::ValuesIn(kReports),
                         [](const auto& instance) { return instance.param.name; });

class TraceFaults : public testing::TestWithParam<Kind> {
 protected:
  using Contents = std::map<std::string, std::string>;  // of files, by their names

  TraceFaults() { makeInputs(folder_); }

  ToolResult runFailing(int number) {
    return runWithFault(folder_, GetParam(), number, "mlnn run model.txt frames.txt --trace trace");
  }

  Contents trace() const {
    Contents contents;
    for (const fs::directory_entry& entry : fs::directory_iterator(folder_.path("trace"))) {
      contents[entry.path().filename().string()] = contentOf(entry.path().string());
    }
    return contents;
  }

  TempFolder folder_;
};

// What is left of a trace when a file of it cannot be written: those before it are new. Stages
// follow each other as their names do here.
std::map<std::string, std::string> leftOf(std::map<std::string, std::string> trace,
                                          const std::string& messages) {
  bool isNew = messages.find("'trace/") != std::string::npos;
  for (auto& [name, content] : trace) {
    isNew = isNew && messages.find("'trace/" + name + "'") == std::string::npos;
    if (!isNew) content = kOld;
  }
  return trace;
}

TEST_P(TraceFaults, leaveEveryFileWhole) {
  if (toolHasSanitizers()) GTEST_SKIP() << "the sanitizer's library must be the first one";
  constexpr int kTraceTries = 12;
  ASSERT_EQ(runFailing(0).status, 0);
  const Contents whole = trace();
  ASSERT_EQ(whole.size(), 8u);
  int failures = 0;
  for (int number = 1; number <= kTraceTries; ++number) {
    for (const auto& [name, content] : whole) folder_.write("trace/" + name, kOld);
    const ToolResult result = runFailing(number);
    SCOPED_TRACE(std::to_string(number) + ": " + result.err);
    if (result.status == 0) {
      EXPECT_EQ(trace(), whole);
      continue;
    }
    ++failures;
    EXPECT_EQ(result.status, mlnn::kRefused);
    EXPECT_EQ(result.out, "");
    EXPECT_THAT(result.err, HasSubstr(std::string("': ") + GetParam().error + "\n"));
    EXPECT_EQ(trace(), leftOf(whole, result.err));
  }
  EXPECT_GT(failures, 0);
}

INSTANTIATE_TEST_SUITE_P(Tool, TraceFaults, testing::ValuesIn(kKinds),
                         [](const auto& instance) { return instance.param.name; });

const std::vector<Kind> kFolderKinds = {{"opendir", "Cannot allocate memory"},
                                        {"readdir", "Input/output error"}};

class FolderFaults : public testing::TestWithParam<Kind> {
 protected:
  FolderFaults() {
    makeInputs(folder_);
    const ToolResult made = runShell(
        "mkdir ours theirs && mlnn run model.txt frames.txt --out ours/outputs.npy &&\n"
        "cp ours/outputs.npy theirs",
        folder_.path());
    EXPECT_EQ(made.status, 0) << made.err;
  }

  TempFolder folder_;
};

// No folder is taken for one that holds less than it does.
TEST_P(FolderFaults, nameTheFolder) {
  if (toolHasSanitizers()) GTEST_SKIP() << "the sanitizer's library must be the first one";
  const std::string line = "mlnn compare ours theirs";
  const ToolResult whole = runWithFault(folder_, GetParam(), 0, line);
  ASSERT_EQ(whole.status, 0);
  std::set<std::string> messages;
  for (int number = 1;; ++number) {
    const ToolResult result = runWithFault(folder_, GetParam(), number, line);
    SCOPED_TRACE(std::to_string(number) + ": " + result.err);
    if (result.status == 0) {  // there was no such call
      EXPECT_EQ(result.out, whole.out);
      break;
    }
    EXPECT_EQ(result.status, 2);
    EXPECT_EQ(result.out, "");
    messages.insert(result.err);
  }
  const std::string reason = std::string(": ") + GetParam().error + "\n";
  EXPECT_THAT(messages, ElementsAre("ERROR: cannot read the folder 'ours'" + reason,
                                    "ERROR: cannot read the folder 'theirs'" + reason));
}

TEST_P(FolderFaults, leaveAnEarlierTraceWhole) {
  if (toolHasSanitizers()) GTEST_SKIP() << "the sanitizer's library must be the first one";
  folder_.write("ours/outputs.npy", kOld);
  const ToolResult result =
      runWithFault(folder_, GetParam(), 1, "mlnn run model.txt frames.txt --trace ours");
  EXPECT_EQ(result.status, mlnn::kRefused);
  EXPECT_EQ(result.out, "");
  EXPECT_THAT(result.err, HasSubstr(std::string("ERROR: cannot read the folder 'ours': ") +
                                    GetParam().error + "\n"));
  EXPECT_EQ(contentOf(folder_.path("ours/outputs.npy")), kOld);
  EXPECT_EQ(std::distance(fs::directory_iterator(folder_.path("ours")), {}), 1);
}

INSTANTIATE_TEST_SUITE_P(Tool, FolderFaults, testing::ValuesIn(kFolderKinds),
                         [](const auto& instance) { return instance.param.name; });

// No memory, whoever asks for it: options, messages, the model.
class MemoryFaults : public testing::TestWithParam<const char*> {};

TEST_P(MemoryFaults, leaveTheEarlierFileWhole) {
  if (toolHasSanitizers()) GTEST_SKIP() << "the sanitizer's library must be the first one";
  const int step = triesSample() ? 31 : 7;  // there are some thousand calls
  const Kind kind = {"malloc", ""};
  const TempFolder folder;
  makeInputs(folder);
  ASSERT_EQ(runWithFault(folder, kind, 0, GetParam()).status, 0);
  const std::string whole = contentOf(folder.path("out"));
  const std::vector<std::string> names = folder.names();
  int failures = 0;
  for (int number = 1, passes = 0; passes < 3; number += step) {  // sorting goes without memory
    folder.write("out", kOld);
    const ToolResult result = runWithFault(folder, kind, number, std::string("exec ") + GetParam());
    SCOPED_TRACE(std::to_string(number) + ": " + result.err);
    EXPECT_EQ(folder.names(), names);
    if (result.status == 0) {
      EXPECT_EQ(contentOf(folder.path("out")), whole);
      ++passes;
      continue;
    }
    passes = 0;
    ++failures;
    ASSERT_EQ(result.status, mlnn::kRefused);
    EXPECT_THAT(result.err, EndsWith("ERROR: out of memory\n"));
    EXPECT_EQ(contentOf(folder.path("out")), kOld);
  }
  EXPECT_GT(failures, 10);
}

INSTANTIATE_TEST_SUITE_P(Tool, MemoryFaults,
                         testing::Values("mlnn convert model.txt out --to binary",
                                         "mlnn run model.txt frames.txt --out out"));

// Memory that runs out before main, where the options' library makes what it keeps.
TEST(EarlyMemoryFaults, areToldAsLaterOnes) {
  if (toolHasSanitizers()) GTEST_SKIP() << "the sanitizer's library must be the first one";
  const Kind kind = {"early", ""};
  const TempFolder folder;
  int failures = 0;
  for (int number = 1; failures == 0 || number < 100; ++number) {
    const ToolResult result = runWithFault(folder, kind, number, "exec mlnn --version");
    SCOPED_TRACE(std::to_string(number) + ": " + result.err);
    if (result.status == 0) continue;  // the standard library goes without, or there was no call
    ++failures;
    ASSERT_EQ(result.status, mlnn::kRefused);
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(result.err, "ERROR: out of memory\n");
  }
  EXPECT_GT(failures, 10);
}

// No allocation behind the making of the unfinished file may leave it there.
TEST(UnfinishedFaults, memoryThatRunsOutLeavesNothing) {
  if (toolHasSanitizers()) GTEST_SKIP() << "the sanitizer's library must be the first one";
  const TempFolder folder;
  makeInputs(folder);
  folder.write("out", kOld);
  const std::vector<std::string> names = folder.names();
  const ToolResult result =
      runWithFault(folder, {"behind", ""}, 1, "exec mlnn convert model.txt out --to binary");
  EXPECT_EQ(result.status, mlnn::kRefused);
  EXPECT_THAT(result.err, EndsWith("ERROR: out of memory\n"));
  EXPECT_EQ(folder.names(), names);
  EXPECT_EQ(contentOf(folder.path("out")), kOld);
}

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
  expectCannotWrite("ulimit -f 1; mlnn convert model.txt out --to binary", "'out'",
                    "File too large");
  EXPECT_EQ(contentOf(folder_.path("out")), kOld);
  EXPECT_EQ(folder_.names(), names);
}

TEST_F(SystemFaults, aStandardOutputThatGrowsTooLargeIsNamed) {
  expectCannotWrite("ulimit -f 1; mlnn convert model.txt - --to binary > out", "to standard output",
                    "File too large");
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
  if (toolHasSanitizers()) GTEST_SKIP() << "the sanitizer's library must be the first one";
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
