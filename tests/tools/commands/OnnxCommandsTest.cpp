#include <gtest/gtest.h>
#include <sys/stat.h>

#include <string>

#include "tests/tools/support/ToolProcess.h"

// The Python package has its own tests of what these commands do; here stands another program in
// the place of the interpreter.
namespace {

using mlnn::test::runShell;
using mlnn::test::runTool;
using mlnn::test::TempFolder;
using mlnn::test::ToolResult;

class OnnxCommandsTest : public ::testing::Test {
 protected:
  // Writes a program that runs `line`, and returns its path.
  std::string writeProgram(const std::string& name, const std::string& line) const {
    const std::string path = folder_.write(name, "#!/bin/sh\n" + line + "\n");
    chmod(path.c_str(), 0755);
    return path;
  }

  TempFolder folder_;
  const std::string python_ = writeProgram("python", "echo \"$1\"; shift 2; echo \"$@\"; exit 3");
};

TEST_F(OnnxCommandsTest, handOverToThePackageAndReturnItsStatus) {
  const ToolResult exported =
      runTool({"export-onnx", "--python", python_, "--act-fn", "relu", "a.txt", "b.onnx"});
  EXPECT_EQ(exported.status, 3);
  EXPECT_EQ(exported.out, "-c\nexport-onnx --act-fn=relu -- a.txt b.onnx\n");
  EXPECT_EQ(exported.err, "");
  const ToolResult quantized =
      runTool({"export-onnx", "--quantized", "--python", python_, "a.txt", "b.onnx"});
  EXPECT_EQ(quantized.out, "-c\nexport-onnx --quantized -- a.txt b.onnx\n");
  const ToolResult rounded = runTool({"export-onnx", "a.txt", "b.onnx", "--quantized", "--frames",
                                      "c.npy", "d.npy", "--python", python_});
  EXPECT_EQ(rounded.out,
            "-c\nexport-onnx --quantized --frames=c.npy --frames=d.npy -- a.txt b.onnx\n");
  const ToolResult whole = runTool(
      {"export-onnx", "--normalisation", "--context", "--python", python_, "a.txt", "b.onnx"});
  EXPECT_EQ(whole.out, "-c\nexport-onnx --normalisation --context -- a.txt b.onnx\n");
  const ToolResult imported = runTool({"import-onnx", "--python", python_, "a.onnx", "b.txt"});
  EXPECT_EQ(imported.status, 3);
  EXPECT_EQ(imported.out, "-c\nimport-onnx -- a.onnx b.txt\n");
}

TEST_F(OnnxCommandsTest, takeTheInterpreterFromTheEnvironment) {
  const ToolResult result = runShell("MLNN_PYTHON=" + python_ + " mlnn import-onnx a b");
  EXPECT_EQ(result.status, 3);
  EXPECT_EQ(result.out, "-c\nimport-onnx -- a b\n");
}

TEST_F(OnnxCommandsTest, sayThatThereIsNoInterpreter) {
  const ToolResult result = runTool({"import-onnx", "--python", "/none", "a", "b"});
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.out, "");
  EXPECT_EQ(result.err,
            "ERROR: cannot run /none: No such file or directory; ONNX is read and written by the "
            "Python package mlnn\n");
}

TEST_F(OnnxCommandsTest, tellHowToNameAnInterpreterThatHasThePackage) {
  if (runShell("python3 -c ''").status != 0) GTEST_SKIP() << "there is no python3";
  const std::string bare = writeProgram("bare-python", "exec python3 -I -S \"$@\"");
  const std::string executable =
      runShell(bare + " -c 'import sys; print(repr(sys.executable))'").out;
  for (const char* const command : {"export-onnx", "import-onnx"}) {
    const ToolResult result = runTool({command, "--python", bare, "a", "b"});
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(result.err, "ERROR: " + executable.substr(0, executable.size() - 1) +
                              " cannot import the Python package mlnn (No module named 'mlnn'); "
                              "--python or MLNN_PYTHON names an interpreter that can\n");
  }
}

}  // namespace
