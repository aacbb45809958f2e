#include "layers/MessageText.h"

#include <iterator>

#include "layers/Report.h"

namespace mlnn {
namespace {

bool startsWith(std::string_view text, std::string_view start) {
  return text.substr(0, start.size()) == start;
}

}  // namespace

// "ERRROR" is fixed by the format's users.
Severity severityOf(std::string_view text) {
  if (startsWith(text, "ERROR: ") || startsWith(text, "ERRROR: ")) return Severity::kError;
  return startsWith(text, "Warning: ") ? Severity::kWarning : Severity::kInfo;
}

MessagePiece::MessagePiece(bool isNegative, uint64_t magnitude) {
  char* start = std::end(digits_);
  do {
    *--start = static_cast<char>('0' + magnitude % 10);
    magnitude /= 10;
  } while (magnitude != 0);
  if (isNegative) *--start = '-';
  text_ = {start, static_cast<std::size_t>(std::end(digits_) - start)};
}

}  // namespace mlnn
