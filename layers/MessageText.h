// What a message says, whatever becomes of it.
// Internal: not installed.
#pragma once

#include <cstddef>
#include <string_view>

#include "layers/Messages.h"

namespace mlnn {

// Bytes that lastError() keeps, with the zero byte at their end.
inline constexpr std::size_t kLastErrorSize = 512;

// Returns the severity that the text begins with.
Severity severityOf(std::string_view text);

}  // namespace mlnn
