// runTool — starts the tool as a process of its own, as a person or a script would.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "tests/support/TempFolder.h"

namespace mlnn::test {

struct ToolResult {
  int status;       // exit status; 128 + N when a signal N ended it
  std::string out;  // standard output, whole
  std::string err;  // standard error, whole
  double processorSeconds = 0;
  std::size_t peakBytes = 0;  // the most memory that it had at one time; 0 on Windows
};

// Runs the tool with these arguments, `input` on its standard input, in the folder `folder`
// ("" for the current one).
// Throws std::system_error when the process cannot be started.
ToolResult runTool(const std::vector<std::string>& arguments, const std::string& input = "",
                   const std::string& folder = "");

// The same in the current folder, with a variable of the environment that is not set otherwise.
ToolResult runToolWith(const std::string& variable, const std::string& value,
                       const std::vector<std::string>& arguments, const std::string& input = "");

// The same; after so many seconds of processor time a signal ends it.
ToolResult runToolAtMost(unsigned processorSeconds, const std::vector<std::string>& arguments,
                         const std::string& folder);

// Runs a line of shell in which `mlnn` is the tool.
ToolResult runShell(const std::string& line, const std::string& folder = "");

// Runs a line of shell whose standard output is a terminal of that width, and which says no more
// than some thousand bytes. Returns what the terminal shows, its lines ending in "\r\n".
// Throws std::system_error when there is no terminal, std::runtime_error when the line fails.
std::string shownOnTerminal(const std::string& line, unsigned short width,
                            const std::string& folder = "");

}  // namespace mlnn::test
