// The command line as a whole: help, wrong usage, and output that cannot be written.
#include <gtest/gtest.h>

#include <string>

#include "tests/support/SourceTree.h"
#include "tests/tools/support/ToolProcess.h"

namespace {

using mlnn::test::runShell;
using mlnn::test::runTool;
using mlnn::test::sourcePath;
using mlnn::test::TempFolder;
using mlnn::test::ToolResult;

constexpr char kRunHelp[] = "Run with --help for more information.\n";

bool contains(const std::string& text, const std::string& part) {
  return text.find(part) != std::string::npos;
}

std::string infoOfSample() { return "mlnn info '" + sourcePath("examples/digits/synth.txt") + "'"; }

TEST(ToolTest, tellsItsVersion) {
  const ToolResult result = runTool({"--version"});
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.out, "mlnn " MLNN_VERSION "\n");
  EXPECT_EQ(result.err, "");
}

TEST(ToolTest, helpListsTheCommands) {
  const ToolResult result = runTool({"--help"});
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.err, "");
  for (const std::string command : {"  run ", "  info ", "  convert ", "EXIT STATUS\n"}) {
    EXPECT_TRUE(contains(result.out, command)) << command;
  }
}

TEST(ToolTest, everyCommandHasExamplesAndExitStatus) {
  for (const std::string command : {"run", "info", "convert"}) {
    const ToolResult result = runTool({command, "--help"});
    EXPECT_EQ(result.status, 0);
    EXPECT_TRUE(contains(result.out, "Usage: mlnn " + command + " [OPTIONS] ")) << result.out;
    EXPECT_TRUE(contains(result.out, "\nEXAMPLES\n  mlnn " + command + " ")) << result.out;
    EXPECT_TRUE(contains(result.out, "\nEXIT STATUS\n  0  done\n  1  ")) << result.out;
    EXPECT_TRUE(contains(result.out, "\n  2  wrong usage\n")) << result.out;
  }
}

struct WrongUsage {
  std::vector<std::string> arguments;
  std::string message;
};

class WrongUsageTest : public ::testing::TestWithParam<WrongUsage> {};

TEST_P(WrongUsageTest, isStatusTwo) {
  const ToolResult result = runTool(GetParam().arguments);
  EXPECT_EQ(result.status, 2);
  EXPECT_EQ(result.out, "");
  EXPECT_EQ(result.err, "ERROR: " + GetParam().message + "\n" + kRunHelp);
}

INSTANTIATE_TEST_SUITE_P(
    All, WrongUsageTest,
    ::testing::Values(
        WrongUsage{{}, "A command is required"}, WrongUsage{{"rum"}, "There is no command 'rum'"},
        WrongUsage{{"rum", "a"}, "There is no command 'rum'"},
        WrongUsage{{"\x1b[m"}, "There is no command '\\x1b[m'"},
        WrongUsage{{"--rum"}, "The following argument was not expected: --rum"},
        WrongUsage{{"diff", "a", "c", "run"}, "The following argument was not expected: run"},
        WrongUsage{{"info"}, "MODEL is required"},
        WrongUsage{{"diff", "a", "c", "b"}, "The following argument was not expected: b"},
        WrongUsage{{"diff", "a", "c", "\x1b[m"},
                   "The following argument was not expected: \\x1b[m"},
        WrongUsage{{"convert", "a"}, "OUT is required"},
        WrongUsage{{"convert", "a", "b", "--to", "text"},
                   "--to: text not in {ascii,binary,c-array}"},
        WrongUsage{{"convert", "a", "b", "--precision", "0"},
                   "--precision: Value 0 not in range 1 to 17"},
        WrongUsage{{"run", "a", "b", "--out", ""}, "--out: expected a value but found ''"},
        WrongUsage{{"run", "a", "b", "-o", ""}, "--out: expected a value but found ''"},
        WrongUsage{{"run", "a", "b", "--trace", ""}, "--trace: expected a value but found ''"},
        WrongUsage{{"check", "a", "--against", ""}, "--against: expected a value but found ''"},
        WrongUsage{{"plot", "a", "--out", ""}, "--out: expected a value but found ''"},
        WrongUsage{{"new", "1,2", "a", "--features", ""},
                   "--features: expected a value but found ''"},
        WrongUsage{{"reduce", "a", "--sweep", "", "--frames", "b"},
                   "--sweep: expected a value but found ''"},
        WrongUsage{{"reduce", "a", "--sweep", "1..2", "--frames", "b", "--labels", ""},
                   "--labels: expected a value but found ''"},
        WrongUsage{{"export-onnx", "a", "b", "--act-fn", ""},
                   "--act-fn: expected a value but found ''"}));

TEST(ToolTest, aFileMayBeCalledAsACommand) {
  const TempFolder folder;
  folder.write("run", "MultiLayerNNModel\nnum_layers 0\n");
  const ToolResult result = runTool({"info", "run"}, "", folder.path());
  EXPECT_EQ(result.status, 0) << result.err;
}

// --- Output that cannot be written ---

TEST(ToolTest, aFullDiskIsAFailure) {
  const ToolResult result = runShell(infoOfSample() + " > /dev/full");
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.err, "ERROR: cannot write to standard output: No space left on device\n");
}

TEST(ToolTest, aClosedPipeIsAFailure) {
  const TempFolder folder;
  const ToolResult result =
      runShell("{ sleep 0.2; " + infoOfSample() + "; echo $? > '" + folder.path("status") +
               "'; } | true; "
               "while [ ! -s '" +
               folder.path("status") + "' ]; do sleep 0.05; done");
  EXPECT_EQ(mlnn::test::contentOf(folder.path("status")), "1\n");
  EXPECT_EQ(result.err, "ERROR: cannot write to standard output: Broken pipe\n");
}

TEST(ToolTest, aClosedStandardOutputIsAFailure) {
  const ToolResult result = runShell(infoOfSample() + " >&-");
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.err, "ERROR: cannot write to standard output: Bad file descriptor\n");
}

TEST(ToolTest, aClosedStandardInputIsAFailure) {
  const ToolResult result = runShell("mlnn info - <&-");
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.err, "ERROR: cannot read standard input: Bad file descriptor\n");
}

// --- Memory ---

// The model file says how many numbers it has; there is room for the file but not for them.
TEST(ToolTest, outOfMemoryIsAFailure) {
  const TempFolder folder;
  std::string row(40000000, '\t');
  for (std::size_t i = 0; i < row.size(); i += 2) row[i] = '0';
  folder.write("model.txt",
               "MultiLayerNNModel\nnum_layers 1\nlayer 1 size 1 20000000\n" + row + "\n");
  const ToolResult result = runShell("ulimit -v 120000; mlnn info model.txt", folder.path());
  if (result.status == 0 || contains(result.err, "Sanitizer")) {
    GTEST_SKIP() << "memory cannot be limited here";
  }
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.err, "ERROR: out of memory\n");
}

}  // namespace
