#include "tools/files/RegularFile.h"

#include "tools/files/InputFile.h"

namespace mlnn {

std::optional<FileIdentity> identityOfRegularFile(const std::string& name) {
  FileStatus status;
  if (name == kStandardStream || !readStatus(name.c_str(), status)) return std::nullopt;
  if (status.kind != FileKind::kRegular) return std::nullopt;
  return status.identity;
}

}  // namespace mlnn
