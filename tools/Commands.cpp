#include "tools/Commands.h"

#include "tools/AverageCommand.h"
#include "tools/BudgetCommand.h"
#include "tools/CheckCommand.h"
#include "tools/CompareCommand.h"
#include "tools/ConvertCommand.h"
#include "tools/DiffCommand.h"
#include "tools/EditCommand.h"
#include "tools/FoldCommand.h"
#include "tools/InfoCommand.h"
#include "tools/NewCommand.h"
#include "tools/OnnxCommands.h"
#include "tools/PlotCommand.h"
#include "tools/ReduceCommand.h"
#include "tools/RunCommand.h"

namespace mlnn {

// One line for each command.
void addCommands(Tool& tool) {
  addRunCommand(tool);
  addInfoCommand(tool);
  addCheckCommand(tool);
  addConvertCommand(tool);
  addFoldCommand(tool);
  addReduceCommand(tool);
  addAverageCommand(tool);
  addEditCommand(tool);
  addNewCommand(tool);
  addDiffCommand(tool);
  addCompareCommand(tool);
  addBudgetCommand(tool);
  addPlotCommand(tool);
  addExportOnnxCommand(tool);
  addImportOnnxCommand(tool);
}

}  // namespace mlnn
