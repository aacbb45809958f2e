// mlnn quantize — weights rounded to few bits with a scale for each output, and the proof of it.
#pragma once

namespace mlnn {

class Tool;

void addQuantizeCommand(Tool& tool);

}  // namespace mlnn
