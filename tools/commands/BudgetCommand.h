// mlnn budget — says what a model needs before anyone deploys it.
#pragma once

namespace mlnn {

class Tool;

void addBudgetCommand(Tool& tool);

}  // namespace mlnn
