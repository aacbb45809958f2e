// mlnn run — computes the outputs of a model for recorded frames.
#pragma once

namespace mlnn {

class Tool;

void addRunCommand(Tool& tool);

}  // namespace mlnn
