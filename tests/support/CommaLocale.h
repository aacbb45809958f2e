// makeCommaLocale — a C locale that writes 1.234,5 for 1234.5.
#pragma once

#include <string>

namespace mlnn::test {

// What setlocale and LC_ALL call the locale, where LOCPATH is its folder.
inline constexpr char kCommaLocale[] = "comma";

// Makes the locale in a folder, which must be there.
// Returns: whether that could be done; it takes localedef and the sources of locales, which
// Debian's package `locales` brings.
bool makeCommaLocale(const std::string& folder);

}  // namespace mlnn::test
