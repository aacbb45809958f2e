// numberRange — a check for options that take a number.
#pragma once

#include <CLI/CLI.hpp>
#include <limits>

namespace mlnn {

// Accepts a number from `smallest` to `largest`, in decimal notation whatever the locale. Unlike
// CLI::Range it refuses "nan", which compares with nothing.
CLI::Validator numberRange(double smallest,
                           double largest = std::numeric_limits<double>::infinity());

}  // namespace mlnn
