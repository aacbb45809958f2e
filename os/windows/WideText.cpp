#include "os/windows/WideText.h"

#include <limits>

#include "os/windows/Windows.h"

namespace mlnn {
namespace {

// The calls count in int; no name is that long.
template <typename Text>
int lengthOf(const Text& text) {
  constexpr auto kMost = static_cast<std::size_t>(std::numeric_limits<int>::max() / 4);
  return text.size() > kMost ? 0 : static_cast<int>(text.size());
}

}  // namespace

std::wstring wideOf(std::string_view utf8) {
  const int length = lengthOf(utf8);
  if (length == 0) return {};
  const int needed = MultiByteToWideChar(CP_UTF8, 0, utf8.data(), length, nullptr, 0);
  std::wstring wide(static_cast<std::size_t>(needed), L'\0');
  MultiByteToWideChar(CP_UTF8, 0, utf8.data(), length, wide.data(), needed);
  return wide;
}

std::string utf8Of(std::wstring_view wide) {
  const int length = lengthOf(wide);
  if (length == 0) return {};
  const int needed =
      WideCharToMultiByte(CP_UTF8, 0, wide.data(), length, nullptr, 0, nullptr, nullptr);
  std::string utf8(static_cast<std::size_t>(needed), '\0');
  WideCharToMultiByte(CP_UTF8, 0, wide.data(), length, utf8.data(), needed, nullptr, nullptr);
  return utf8;
}

}  // namespace mlnn
