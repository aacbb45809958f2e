// What the terminal behind the standard output can show.
#pragma once

#include <cstddef>

namespace mlnn {

// Returns its width in characters, 80 where the standard output is no terminal.
std::size_t terminalWidth();

// Returns whether the user's locale writes UTF-8.
bool localeIsUtf8();

}  // namespace mlnn
