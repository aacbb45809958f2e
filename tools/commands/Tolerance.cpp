#include "tools/commands/Tolerance.h"

#include "tools/commands/NumberRange.h"

namespace mlnn {

Option addToleranceOption(CommandLine& command, double& tolerance) {
  return command
      .add("--tolerance", tolerance, "Largest absolute difference that counts as the same")
      .check(numberRange(0))
      .type("T")
      .showDefault();
}

}  // namespace mlnn
