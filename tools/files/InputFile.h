// readInput — the whole of a file, a pipe or the standard input, in memory.
#pragma once

#include <string>
#include <vector>

namespace mlnn {

// The name that stands for the standard input, and for the standard output.
inline constexpr char kStandardStream[] = "-";

// How messages call a file: its quoted name, or "standard input".
std::string inputName(const std::string& name);

// Whether something of that name cannot be put into a folder: "" is no name, and "." and ".."
// are that folder and the one around it.
bool isNoEntry(const std::string& name);

// Makes sure that at most one of the files is the standard input, which is over after the first.
// Throws: UsageError.
void refuseSecondStandardInput(const std::vector<std::string>& names);

// Returns the bytes of the file, or of the standard input for "-". What does not end is refused: of
// a device that is no terminal at most 1 MiB is read, of a pipe a quarter of the memory that the
// process may have. Throws: Failure that names the file and the reason.
std::string readInput(const std::string& name);

}  // namespace mlnn
