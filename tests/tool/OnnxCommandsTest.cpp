#include <gtest/gtest.h>
#include <sys/stat.h>

#include <string>

#include "tests/tool/ToolProcess.h"

// The Python package has its own tests of what these commands do; here stands another program in
// the place of the interpreter.
namespace {

using mlnn::test::runShell;
using mlnn::test::runTool;
using mlnn::test::TempFolder;
using mlnn::test::ToolResult;

class OnnxCommandsTest : public ::testing::Test {
 protected:
  OnnxCommandsTest() : python_(folder_.write("python", "#!/bin/sh\necho \"$@\"\nexit 3\n")) {
    chmod(python_.c_str(), 0755);
  }

  TempFolder folder_;
  std::string python_;
};

TEST_F(OnnxCommandsTest, handOverToThePackageAndReturnItsStatus) {
  const ToolResult exported =
      runTool({"export-onnx", "--python", python_, "--act-fn", "relu", "a.txt", "b.onnx"});
  EXPECT_EQ(exported.status, 3);
  EXPECT_EQ(exported.out, "-m mlnn export-onnx --act-fn=relu -- a.txt b.onnx\n");
  EXPECT_EQ(exported.err, "");
  const ToolResult imported = runTool({"import-onnx", "--python", python_, "a.onnx", "b.txt"});
  EXPECT_EQ(imported.status, 3);
  EXPECT_EQ(imported.out, "-m mlnn import-onnx -- a.onnx b.txt\n");
}

TEST_F(OnnxCommandsTest, takeTheInterpreterFromTheEnvironment) {
  const ToolResult result = runShell("MLNN_PYTHON=" + python_ + " mlnn import-onnx a b");
  EXPECT_EQ(result.status, 3);
  EXPECT_EQ(result.out, "-m mlnn import-onnx -- a b\n");
}

TEST_F(OnnxCommandsTest, sayThatThereIsNoInterpreter) {
  const ToolResult result = runTool({"import-onnx", "--python", "/none", "a", "b"});
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.out, "");
  EXPECT_EQ(result.err,
            "ERROR: cannot run /none: No such file or directory; ONNX is read and written by the "
            "Python package mlnn\n");
}

}  // namespace
