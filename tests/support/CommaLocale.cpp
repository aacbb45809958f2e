#include "tests/support/CommaLocale.h"

#include <cstdlib>

namespace mlnn::test {

bool makeCommaLocale(const std::string& folder) {
  const std::string command =
      "localedef -i de_DE -f UTF-8 '" + folder + "/" + kCommaLocale + "' >/dev/null 2>&1";
  return std::system(command.c_str()) == 0;
}

}  // namespace mlnn::test
