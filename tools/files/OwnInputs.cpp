#include "tools/files/OwnInputs.h"

#include <sys/stat.h>

#include "text/Escape.h"
#include "tools/Failure.h"
#include "tools/files/InputFile.h"

namespace mlnn {
namespace {

// Whether the name is that of a regular file, whose status is then known.
bool isRegularFile(const std::string& name, struct stat& status) {
  return name != kStandardStream && stat(name.c_str(), &status) == 0 && S_ISREG(status.st_mode);
}

}  // namespace

void OwnInputs::add(const std::string& name, const std::string& kind) {
  struct stat status;
  if (!isRegularFile(name, status)) return;
  inputs_.emplace(Identity(status.st_dev, status.st_ino), kind + ", " + inQuotes(name));
}

void OwnInputs::refuse(const std::string& result) const {
  struct stat status;
  if (!isRegularFile(result, status)) return;
  const auto found = inputs_.find(Identity(status.st_dev, status.st_ino));
  if (found == inputs_.end()) return;
  throw UsageError("the result would replace its own " + found->second);
}

}  // namespace mlnn
