#include "tools/commands/Tolerance.h"

#include "tools/commands/NumberRange.h"

namespace mlnn {

CLI::Option* addToleranceOption(CLI::App& command, double& tolerance) {
  return command
      .add_option("--tolerance", tolerance, "Largest absolute difference that counts as the same")
      ->check(numberRange(0))
      ->type_name("T")
      ->capture_default_str();
}

}  // namespace mlnn
