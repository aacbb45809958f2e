// mlnn fold — batch-norm layers become plain layers that compute the same.
#pragma once

namespace mlnn {

class Tool;

void addFoldCommand(Tool& tool);

}  // namespace mlnn
