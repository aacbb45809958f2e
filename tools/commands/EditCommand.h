// mlnn edit — changes what a model says of itself, its activations, layers and scale.
#pragma once

namespace mlnn {

class Tool;

void addEditCommand(Tool& tool);

}  // namespace mlnn
