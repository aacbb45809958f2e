#include "os/Program.h"

#include <fcntl.h>
#include <io.h>
#include <stdio.h>

#include <cstdlib>
#include <cstring>

#include "os/Descriptors.h"
#include "os/windows/Errors.h"
#include "os/windows/Handle.h"
#include "os/windows/WideText.h"

namespace mlnn {
namespace {

void showSequences(DWORD stream) {
  HANDLE const console = GetStdHandle(stream);
  DWORD mode = 0;
  if (GetConsoleMode(console, &mode) == 0) return;
  SetConsoleMode(console, mode | ENABLE_VIRTUAL_TERMINAL_PROCESSING);
}

// A program takes its command line apart itself: quotes around a word that needs them, backslashes
// before a quote doubled, and a backslash before the quote.
std::wstring argumentOf(const std::wstring& word) {
  if (!word.empty() && word.find_first_of(L" \t\n\v\"") == std::wstring::npos) return word;
  std::wstring quoted = L"\"";
  std::size_t backslashes = 0;
  for (const wchar_t c : word) {
    if (c == L'"') quoted.append(backslashes + 1, L'\\');
    backslashes = c == L'\\' ? backslashes + 1 : 0;
    quoted += c;
  }
  return quoted.append(backslashes, L'\\') + L"\"";
}

std::wstring commandLineOf(const std::vector<std::string>& words) {
  std::wstring line;
  for (const std::string& word : words) {
    if (!line.empty()) line += L' ';
    line += argumentOf(wideOf(word));
  }
  return line;
}

}  // namespace

void beginProgram() {
  for (const int stream : {kStandardInput, kStandardOutput, kStandardError}) {
    if (_get_osfhandle(stream) >= 0) _setmode(stream, _O_BINARY);
  }
  SetConsoleOutputCP(CP_UTF8);
  showSequences(STD_OUTPUT_HANDLE);
  showSequences(STD_ERROR_HANDLE);
}

std::vector<std::string> wordsOf(int argc, const char* const* argv) {
  int count = 0;
  wchar_t** const wide = CommandLineToArgvW(GetCommandLineW(), &count);
  if (wide == nullptr) return {argv, argv + argc};
  std::vector<std::string> words;
  words.reserve(static_cast<std::size_t>(count));
  for (int i = 0; i < count; ++i) words.push_back(utf8Of(wide[i]));
  LocalFree(wide);
  return words;
}

void endAtOnce(const char* text, int status) {
  writeBytes(kStandardError, text, std::strlen(text));
  std::_Exit(status);
}

void setDefault(const char* variable, const char* value) {
  const std::wstring name = wideOf(variable);
  if (GetEnvironmentVariableW(name.c_str(), nullptr, 0) != 0) return;
  SetEnvironmentVariableW(name.c_str(), wideOf(value).c_str());
}

int becomeProgram(const std::vector<std::string>& words) {
  std::wstring line = commandLineOf(words);
  STARTUPINFOW start{};
  start.cb = sizeof start;
  PROCESS_INFORMATION started{};
  if (CreateProcessW(nullptr, line.data(), nullptr, nullptr, TRUE, 0, nullptr, nullptr, &start,
                     &started) == 0) {
    return errnoOf(GetLastError());
  }
  const Handle process(started.hProcess);
  const Handle thread(started.hThread);
  DWORD status = 1;
  WaitForSingleObject(process.get(), INFINITE);
  GetExitCodeProcess(process.get(), &status);
  std::exit(static_cast<int>(status));
}

}  // namespace mlnn
