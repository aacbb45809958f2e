#include "tools/reports/Terminal.h"

#include <langinfo.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <clocale>
#include <cstdlib>
#include <cstring>

namespace mlnn {
namespace {

bool wantsColours() {
  const char* const refused = std::getenv("NO_COLOR");
  if (refused != nullptr && *refused != '\0') return false;
  const char* const terminal = std::getenv("TERM");
  return terminal != nullptr && std::strcmp(terminal, "dumb") != 0;
}

}  // namespace

std::size_t terminalWidth() {
  constexpr std::size_t kDefaultWidth = 80;
  winsize size{};
  if (ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) != 0 || size.ws_col == 0) return kDefaultWidth;
  return size.ws_col;
}

// Asks for the locale without setting it: numbers are to be read and written the same in all.
bool localeIsUtf8() {
  const locale_t locale = newlocale(LC_CTYPE_MASK, "", nullptr);
  if (locale == nullptr) return false;
  const bool isUtf8 = std::strcmp(nl_langinfo_l(CODESET, locale), "UTF-8") == 0;
  freelocale(locale);
  return isUtf8;
}

std::optional<TerminalLook> terminalLook() {
  if (isatty(STDOUT_FILENO) == 0) return std::nullopt;
  return TerminalLook{terminalWidth(),
                      localeIsUtf8() ? CharacterSet::kUnicode : CharacterSet::kAscii,
                      wantsColours()};
}

}  // namespace mlnn
