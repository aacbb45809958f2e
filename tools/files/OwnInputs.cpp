#include "tools/files/OwnInputs.h"

#include <optional>

#include "text/Escape.h"
#include "tools/Failure.h"
#include "tools/files/RegularFile.h"

namespace mlnn {

void OwnInputs::add(const std::string& name, const std::string& kind) {
  const std::optional<FileIdentity> input = identityOfRegularFile(name);
  if (!input) return;
  inputs_.emplace(*input, kind + ", " + inQuotes(name));
}

void OwnInputs::refuse(const std::string& result) const {
  const std::optional<FileIdentity> replaced = identityOfRegularFile(result);
  if (!replaced) return;
  const auto found = inputs_.find(*replaced);
  if (found == inputs_.end()) return;
  throw UsageError("the result would replace its own " + found->second);
}

}  // namespace mlnn
