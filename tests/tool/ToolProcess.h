// runTool — starts the tool as a process of its own, as a person or a script would.
#pragma once

#include <string>
#include <vector>

namespace mlnn::test {

struct ToolResult {
  int status;       // exit status; 128 + N when a signal N ended it
  std::string out;  // standard output, whole
  std::string err;  // standard error, whole
};

// Runs the tool with these arguments, `input` on its standard input, in the folder `folder`
// ("" for the current one).
// Throws std::system_error when the process cannot be started.
ToolResult runTool(const std::vector<std::string>& arguments, const std::string& input = "",
                   const std::string& folder = "");

// Runs a line of shell in which `mlnn` is the tool.
ToolResult runShell(const std::string& line, const std::string& folder = "");

// Returns the bytes of a file. Throws std::runtime_error when there is none.
std::string contentOf(const std::string& path);

// A folder for the files of one test, which goes when the test ends.
class TempFolder {
 public:
  TempFolder();
  ~TempFolder();
  TempFolder(const TempFolder&) = delete;
  TempFolder& operator=(const TempFolder&) = delete;

  // The path of a file in the folder, whether there is one or not.
  std::string path(const std::string& name = "") const;

  // Makes a file and returns its path.
  std::string write(const std::string& name, const std::string& content) const;

  // The names of everything in the folder, hidden files included, sorted.
  std::vector<std::string> names() const;

 private:
  std::string path_;
};

}  // namespace mlnn::test
