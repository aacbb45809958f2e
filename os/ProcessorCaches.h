// What the processor has between itself and the memory. Internal: not installed.
#pragma once

#include <cstddef>

namespace mlnn {

// Returns the size in bytes of its cache of the second or the third level; 0 where that is not
// known.
std::size_t processorCache(int level);

}  // namespace mlnn
