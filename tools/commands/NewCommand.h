// mlnn new — a model made from layer sizes.
#pragma once

namespace mlnn {

class Tool;

void addNewCommand(Tool& tool);

}  // namespace mlnn
