// mlnn average — the weighted mean of models of one shape.
#pragma once

namespace mlnn {

class Tool;

void addAverageCommand(Tool& tool);

}  // namespace mlnn
