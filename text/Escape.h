// escaped — makes text from a file or a command line safe to show on a terminal.
#pragma once

#include <string>
#include <string_view>

namespace mlnn {

// Returns the text with everything that could drive a terminal, or hide in it, made visible:
// control characters (C0, DEL, C1) and bytes that are not UTF-8 as \xNN, tab, line feed and
// carriage return as \t, \n and \r, a backslash as \\, and invisible or direction-changing
// characters as \u{NNNN}. All other UTF-8 stays as it is.
std::string escaped(std::string_view text);

// The same in single quotes, as names and values stand in messages.
std::string inQuotes(std::string_view text);

// The same as escaped, but of a long text, such as a note line with the normalisation, only the
// beginning and the number of its bytes.
std::string shortened(std::string_view text);

}  // namespace mlnn
