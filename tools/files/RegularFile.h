// identityOfRegularFile — tells regular files from whatever else a name may stand for.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <utility>

namespace mlnn {

// Device and number of a file, which all its names share. The system's own types have another width
// where a program is built for short numbers of files.
using FileIdentity = std::pair<uint64_t, uint64_t>;

// Returns what a regular file is, by its own name or by that of a link to it; nothing for whatever
// else the name stands for, the standard stream included. Opens nothing: whoever writes into a pipe
// would find its only reader gone.
std::optional<FileIdentity> identityOfRegularFile(const std::string& name);

}  // namespace mlnn
