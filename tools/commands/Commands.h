// addCommands — everything that `mlnn` can do.
#pragma once

#include "tools/shell/Tool.h"

namespace mlnn {

// Adds all commands, in the order in which the help lists them.
void addCommands(Tool& tool);

}  // namespace mlnn
