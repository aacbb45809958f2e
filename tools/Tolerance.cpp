#include "tools/Tolerance.h"

#include <charconv>
#include <string>
#include <system_error>

namespace mlnn {
namespace {

std::string checkTolerance(const std::string& text) {
  double value = 0;
  const char* end = text.data() + text.size();
  const std::from_chars_result result = std::from_chars(text.data(), end, value);
  const bool isNumber = result.ec == std::errc() && result.ptr == end;
  return isNumber && value >= 0 ? "" : "expected a number that is not negative, found " + text;
}

}  // namespace

CLI::Option* addToleranceOption(CLI::App& command, double& tolerance) {
  return command
      .add_option("--tolerance", tolerance, "Largest absolute difference that counts as the same")
      ->check(checkTolerance)
      ->type_name("T")
      ->capture_default_str();
}

}  // namespace mlnn
