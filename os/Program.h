// What a program of the command line does first and last. Internal: not installed.
#pragma once

#include <string>
#include <vector>

namespace mlnn {

// Keeps a file that is opened later from becoming a standard stream that the caller closed, and
// makes a closed pipe show as a failed write, as does a file that reaches the largest size that is
// allowed. On Windows, has the standard streams take bytes as they are, and asks the console for
// UTF-8 and for the sequences of terminals.
void beginProgram();

// Returns the words of the command line, on Windows in UTF-8 and not as `main` has them.
std::vector<std::string> wordsOf(int argc, const char* const* argv);

// Writes bytes to the standard error stream and ends the process at once. Takes no memory.
[[noreturn]] void endAtOnce(const char* text, int status);

// Sets a variable of the environment where it is not set.
void setDefault(const char* variable, const char* value);

// Becomes the program, or where that cannot be, runs it and ends with its status.
// Returns: an errno, where it cannot be started.
int becomeProgram(const std::vector<std::string>& words);

}  // namespace mlnn
