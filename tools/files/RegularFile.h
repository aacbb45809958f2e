// identityOfRegularFile — tells regular files from whatever else a name may stand for.
#pragma once

#include <optional>
#include <string>

#include "os/Descriptors.h"

namespace mlnn {

// Returns what a regular file is, by its own name or by that of a link to it; nothing for whatever
// else the name stands for, the standard stream included. Opens nothing: whoever writes into a pipe
// would find its only reader gone.
std::optional<FileIdentity> identityOfRegularFile(const std::string& name);

}  // namespace mlnn
