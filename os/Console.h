// The terminal, or console, behind the standard output. Internal: not installed.
#pragma once

#include <cstddef>

namespace mlnn {

// Returns its width in characters, 0 where the standard output is none, or where that is not known.
std::size_t consoleWidth();

// Returns whether what is written to it is UTF-8: by the user's locale, which is asked without
// being set, or on Windows by the console.
bool consoleTakesUtf8();

// Returns whether it shows colours where the environment does not say so.
bool consoleHasColours();

}  // namespace mlnn
