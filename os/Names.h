// The names of files, which are text everywhere but in the calls of the system: on Windows UTF-8,
// on others the bytes as they are. Internal: not installed.
#pragma once

#include <filesystem>
#include <fstream>
#include <string>
#include <string_view>

namespace mlnn {

// Returns the path that a name stands for. Bytes on Windows that are no UTF-8 become what no name
// holds, so that there is no such file.
std::filesystem::path pathOf(std::string_view name);

// Returns the name of a path, on Windows with '/' between its parts. A name there that is not
// Unicode comes with U+FFFD in the place of what is wrong.
std::string nameOf(const std::filesystem::path& path);

// Opens a file for its bytes as they are. REQUIRES: the stream is not open.
void openToRead(std::ifstream& stream, const char* name);

}  // namespace mlnn
