// mlnn report — shows all that there is to know of a model as a page.
#pragma once

namespace mlnn {

class Tool;

void addReportCommand(Tool& tool);

}  // namespace mlnn
