#include "tools/commands/Commands.h"

#include "tools/commands/AverageCommand.h"
#include "tools/commands/BudgetCommand.h"
#include "tools/commands/CheckCommand.h"
#include "tools/commands/CompareCommand.h"
#include "tools/commands/ConvertCommand.h"
#include "tools/commands/DiffCommand.h"
#include "tools/commands/EditCommand.h"
#include "tools/commands/FoldCommand.h"
#include "tools/commands/InfoCommand.h"
#include "tools/commands/NewCommand.h"
#include "tools/commands/OnnxCommands.h"
#include "tools/commands/PlotCommand.h"
#include "tools/commands/QuantizeCommand.h"
#include "tools/commands/ReduceCommand.h"
#include "tools/commands/ReportCommand.h"
#include "tools/commands/run/RunCommand.h"

namespace mlnn {

// One line for each command.
void addCommands(Tool& tool) {
  addRunCommand(tool);
  addInfoCommand(tool);
  addCheckCommand(tool);
  addConvertCommand(tool);
  addFoldCommand(tool);
  addReduceCommand(tool);
  addQuantizeCommand(tool);
  addAverageCommand(tool);
  addEditCommand(tool);
  addNewCommand(tool);
  addDiffCommand(tool);
  addCompareCommand(tool);
  addBudgetCommand(tool);
  addPlotCommand(tool);
  addReportCommand(tool);
  addExportOnnxCommand(tool);
  addImportOnnxCommand(tool);
}

}  // namespace mlnn
