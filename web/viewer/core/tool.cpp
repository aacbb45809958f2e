// The commands of the tool that the viewer runs, on files in memory.
#include "tools/shell/Tool.h"

#include <sys/stat.h>

#include <new>

#include "tools/ExitStatus.h"
#include "tools/OutOfMemory.h"
#include "tools/commands/CheckCommand.h"
#include "tools/commands/ConvertCommand.h"
#include "tools/commands/FoldCommand.h"
#include "tools/commands/QuantizeCommand.h"
#include "tools/commands/ReportCommand.h"

int main(int argc, char** argv) {
  umask(022);  // what emscripten begins with lets nobody read new files
  try {
    mlnn::Tool tool;
    mlnn::addReportCommand(tool);
    mlnn::addCheckCommand(tool);
    mlnn::addConvertCommand(tool);
    mlnn::addFoldCommand(tool);
    mlnn::addQuantizeCommand(tool);
    return tool.run(argc, argv);
  } catch (const std::bad_alloc&) {
    mlnn::printOutOfMemory();
    return mlnn::kRefused;
  }
}
