// mlnn reduce — parameters snapped to a grid, and what becomes of the results.
#pragma once

namespace mlnn {

class Tool;

void addReduceCommand(Tool& tool);

}  // namespace mlnn
