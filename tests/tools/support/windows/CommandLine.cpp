#include "tests/tools/support/windows/CommandLine.h"

#include "os/windows/WideText.h"

namespace mlnn::test {
namespace {

// A program takes its command line apart itself: quotes around a word, backslashes before a quote
// doubled, and a backslash before the quote.
std::wstring quoted(const std::wstring& word) {
  std::wstring text = L"\"";
  std::size_t backslashes = 0;
  for (const wchar_t c : word) {
    if (c == L'"') text.append(backslashes + 1, L'\\');
    backslashes = c == L'\\' ? backslashes + 1 : 0;
    text += c;
  }
  return text.append(backslashes, L'\\') + L"\"";
}

}  // namespace

std::wstring toolLine(const std::vector<std::string>& arguments) {
  std::wstring line = quoted(wideOf(MLNN_TOOL_PATH));
  for (const std::string& argument : arguments) line += L" " + quoted(wideOf(argument));
  return line;
}

}  // namespace mlnn::test
