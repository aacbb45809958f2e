// What the terminal behind the standard output can show.
#pragma once

#include <cstddef>
#include <optional>

namespace mlnn {

// Returns its width in characters, 80 where the standard output is no terminal.
std::size_t terminalWidth();

// Returns whether the user's locale writes UTF-8.
bool localeIsUtf8();

enum class CharacterSet { kAscii, kUnicode };  // '#', or blocks of an eighth of a line

// What a line on a terminal may look like.
struct TerminalLook {
  std::size_t width = 80;
  CharacterSet set = CharacterSet::kAscii;
  bool hasColours = false;
};

// Returns that of the terminal behind the standard output; nothing where that is none. It has no
// colours where the environment sets NO_COLOR to something, or calls the terminal dumb.
std::optional<TerminalLook> terminalLook();

}  // namespace mlnn
