// mlnn diff — tells where two models differ.
#pragma once

namespace mlnn {

class Tool;

void addDiffCommand(Tool& tool);

}  // namespace mlnn
