// CommandFixture — tests of one command of the tool, in a folder of their own.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "tests/tools/support/ToolProcess.h"

namespace mlnn::test {

class CommandFixture : public ::testing::Test {
 protected:
  explicit CommandFixture(std::string command) : command_(std::move(command)) {}

  // Runs the command in the folder.
  ToolResult run(const std::vector<std::string>& arguments, const std::string& input = "") const {
    std::vector<std::string> line = {command_};
    line.insert(line.end(), arguments.begin(), arguments.end());
    return runTool(line, input, folder_.path());
  }

  // Expects the message and nothing else: nothing printed, no file made or removed.
  void expectRefused(const std::vector<std::string>& arguments, int status,
                     const std::string& message) const {
    const std::vector<std::string> before = folder_.names();
    const ToolResult result = run(arguments);
    EXPECT_EQ(result.status, status);
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(result.err, message);
    EXPECT_EQ(folder_.names(), before);
  }

  TempFolder folder_;

 private:
  std::string command_;
};

}  // namespace mlnn::test
