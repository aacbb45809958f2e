#include "os/Memory.h"

#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>

namespace mlnn {

uint64_t memoryOfProcess() {
  rlimit limit{};
  getrlimit(RLIMIT_AS, &limit);
  const uint64_t memory = static_cast<uint64_t>(std::max(0L, sysconf(_SC_PHYS_PAGES))) *
                          static_cast<uint64_t>(std::max(0L, sysconf(_SC_PAGESIZE)));
  return std::min(memory, static_cast<uint64_t>(limit.rlim_cur));
}

}  // namespace mlnn
