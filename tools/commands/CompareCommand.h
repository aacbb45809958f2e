// mlnn compare — finds where the results of two engines part.
#pragma once

namespace mlnn {

class Tool;

void addCompareCommand(Tool& tool);

}  // namespace mlnn
