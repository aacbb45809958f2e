#include "tools/files/RegularFile.h"

#include <sys/stat.h>

#include "tools/files/InputFile.h"

namespace mlnn {

std::optional<FileIdentity> identityOfRegularFile(const std::string& name) {
  struct stat status;
  if (name == kStandardStream || stat(name.c_str(), &status) != 0) return std::nullopt;
  if (!S_ISREG(status.st_mode)) return std::nullopt;
  return FileIdentity(status.st_dev, status.st_ino);
}

}  // namespace mlnn
