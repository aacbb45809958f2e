#include "tools/reports/Terminal.h"

#include <langinfo.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <clocale>
#include <cstring>

namespace mlnn {

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

}  // namespace mlnn
