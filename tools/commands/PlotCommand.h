// mlnn plot — draws training curves and weights, as a picture or a terminal sketch.
#pragma once

namespace mlnn {

class Tool;

void addPlotCommand(Tool& tool);

}  // namespace mlnn
