#include "tools/commands/Widths.h"

#include <charconv>

#include "text/Escape.h"
#include "tools/Failure.h"

namespace mlnn {

Widths parseWidths(const std::string& text, int least, int most, const std::string& example) {
  const char* const end = text.data() + text.size();
  int first = -1;
  int last = -1;
  std::from_chars_result result = std::from_chars(text.data(), end, first);
  if (result.ec == std::errc() && result.ptr == end) {
    last = first;
  } else if (text.compare(static_cast<std::size_t>(result.ptr - text.data()), 2, "..") == 0) {
    result = std::from_chars(result.ptr + 2, end, last);
  }
  const bool isRange = result.ec == std::errc() && result.ptr == end;
  if (isRange && first >= least && first <= last && last <= most) return {first, last};
  throw UsageError("--sweep: expected a range within " + std::to_string(least) + ".." +
                   std::to_string(most) + ", as in " + example + ", but found " + inQuotes(text));
}

}  // namespace mlnn
