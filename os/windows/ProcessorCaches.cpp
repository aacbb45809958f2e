#include "os/ProcessorCaches.h"

#include <algorithm>
#include <vector>

#include "os/windows/Windows.h"

namespace mlnn {
namespace {

using Relation = SYSTEM_LOGICAL_PROCESSOR_INFORMATION;

std::vector<Relation> relations() {
  DWORD bytes = 0;
  GetLogicalProcessorInformation(nullptr, &bytes);
  std::vector<Relation> all(bytes / sizeof(Relation));
  bytes = static_cast<DWORD>(all.size() * sizeof(Relation));
  if (all.empty() || GetLogicalProcessorInformation(all.data(), &bytes) == 0) return {};
  return all;
}

}  // namespace

std::size_t processorCache(int level) {
  std::size_t largest = 0;
  for (const Relation& relation : relations()) {
    const bool isOfLevel = relation.Relationship == RelationCache && relation.Cache.Level == level;
    if (isOfLevel) largest = std::max<std::size_t>(largest, relation.Cache.Size);
  }
  return largest;
}

}  // namespace mlnn
