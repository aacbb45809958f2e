// mlnn info — says what is in a model file.
#pragma once

namespace mlnn {

class Tool;

void addInfoCommand(Tool& tool);

}  // namespace mlnn
