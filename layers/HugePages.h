// adviseHugePages — lets a large array that is about to be filled have large pages.
#pragma once

#include <cstddef>

namespace mlnn {

// Fresh memory costs more in page faults than in what is copied there; large pages make them
// few. Nothing but speed depends on it, and where the array is small or the system has no large
// pages nothing happens. No memory is used beyond the array.
void adviseHugePages(void* data, std::size_t bytes);

}  // namespace mlnn
