#include "tools/reports/Terminal.h"

#include <cstdlib>
#include <cstring>

#include "os/Console.h"
#include "os/Descriptors.h"

namespace mlnn {
namespace {

bool wantsColours() {
  const char* const refused = std::getenv("NO_COLOR");
  if (refused != nullptr && *refused != '\0') return false;
  const char* const terminal = std::getenv("TERM");
  if (terminal == nullptr) return consoleHasColours();
  return std::strcmp(terminal, "dumb") != 0;
}

}  // namespace

std::size_t terminalWidth() {
  constexpr std::size_t kDefaultWidth = 80;
  const std::size_t width = consoleWidth();
  return width == 0 ? kDefaultWidth : width;
}

// Asks for the locale without setting it: numbers are to be read and written the same in all.
bool localeIsUtf8() { return consoleTakesUtf8(); }

std::optional<TerminalLook> terminalLook() {
  if (!isTerminal(kStandardOutput)) return std::nullopt;
  return TerminalLook{terminalWidth(),
                      localeIsUtf8() ? CharacterSet::kUnicode : CharacterSet::kAscii,
                      wantsColours()};
}

}  // namespace mlnn
