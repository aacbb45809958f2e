#include "os/Console.h"

#include "os/windows/Windows.h"

namespace mlnn {
namespace {

HANDLE console() { return GetStdHandle(STD_OUTPUT_HANDLE); }

}  // namespace

std::size_t consoleWidth() {
  CONSOLE_SCREEN_BUFFER_INFO screen;
  if (GetConsoleScreenBufferInfo(console(), &screen) == 0) return 0;
  return static_cast<std::size_t>(screen.srWindow.Right - screen.srWindow.Left + 1);
}

bool consoleTakesUtf8() { return GetConsoleOutputCP() == CP_UTF8; }

// Those that understand the sequences of terminals, which beginProgram asks them to.
bool consoleHasColours() {
  DWORD mode = 0;
  return GetConsoleMode(console(), &mode) != 0 && (mode & ENABLE_VIRTUAL_TERMINAL_PROCESSING) != 0;
}

}  // namespace mlnn
