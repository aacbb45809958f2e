// Text as the system's calls take it: UTF-16. For the sources of this folder alone.
#pragma once

#include <string>
#include <string_view>

namespace mlnn {

// Bytes that are no UTF-8, and halves of pairs that stand alone, become U+FFFD.
std::wstring wideOf(std::string_view utf8);
std::string utf8Of(std::wstring_view wide);

}  // namespace mlnn
