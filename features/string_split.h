// string_split — cuts a text into pieces at any of a set of delimiter characters.
#pragma once

#include <string>
#include <vector>

#include "features/Export.h"

// Splits `text` at every character that occurs in `delimiters` and replaces the
// contents of `out` with the pieces, in order. Empty pieces, as between two
// adjacent delimiters or at either end, are dropped.
//
// REQUIRES: `delimiters` is a C string; a NUL cannot be a delimiter.
// `text` may be an element of `out`.
MLNN_EXPORT void string_split(std::vector<std::string>& out, const std::string& text,
                              const char* delimiters);
