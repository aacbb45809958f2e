// readInput — the whole of a file, a pipe or the standard input, in memory.
#pragma once

#include <string>

namespace mlnn {

// The name that stands for the standard input, and for the standard output.
inline constexpr char kStandardStream[] = "-";

// How messages call a file: its quoted name, or "standard input".
std::string inputName(const std::string& name);

// Returns the bytes of the file, or of the standard input for "-".
// Throws: Failure that names the file and the reason.
std::string readInput(const std::string& name);

}  // namespace mlnn
