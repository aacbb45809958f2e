// Widths — the numbers of bits that an option --sweep names.
#pragma once

#include <string>

namespace mlnn {

struct Widths {
  int first;
  int last;
};

// Parses one number, as in "8", or two, as in "2..16", of `least` to `most`. `example` is a range
// for the message. Throws: UsageError.
Widths parseWidths(const std::string& text, int least, int most, const std::string& example);

}  // namespace mlnn
