// mlnn convert — writes a model in the other format.
#pragma once

namespace mlnn {

class Tool;

void addConvertCommand(Tool& tool);

}  // namespace mlnn
