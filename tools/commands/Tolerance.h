// The option --tolerance: how far apart two results may be that count as the same.
#pragma once

#include "tools/shell/CommandLine.h"

namespace mlnn {

// Single-precision arithmetic in another order of operations stays well within it.
inline constexpr double kDefaultTolerance = 1e-4;

// Declares --tolerance on a command: an absolute difference that is not negative.
Option addToleranceOption(CommandLine& command, double& tolerance);

}  // namespace mlnn
