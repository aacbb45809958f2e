// numberRange — a check for options that take a number.
#pragma once

#include <limits>

#include "tools/shell/CommandLine.h"

namespace mlnn {

// Accepts a number from `smallest` to `largest`, in decimal notation whatever the locale. Unlike
// Option::inRange it refuses "nan", which compares with nothing.
ValueCheck numberRange(double smallest, double largest = std::numeric_limits<double>::infinity());

}  // namespace mlnn
