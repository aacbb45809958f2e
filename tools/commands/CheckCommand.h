// `mlnn check` — says whether a model file loads, why not and where, and what is odd about it.
#pragma once

namespace mlnn {

class Tool;

void addCheckCommand(Tool& tool);

}  // namespace mlnn
