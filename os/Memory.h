// The memory that there is. Internal: not installed.
#pragma once

#include <cstdint>

namespace mlnn {

// Returns how many bytes the process may have at most: what the machine has, or less where that is
// limited.
uint64_t memoryOfProcess();

}  // namespace mlnn
