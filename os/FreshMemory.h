// Makes memory ready that is about to be filled. Fresh memory costs more in page faults than in
// what is copied there. Nothing but speed depends on these functions; where an array is small, or
// the system does not know what they ask for, nothing happens.
#pragma once

#include <cstddef>

namespace mlnn {

// Lets a large array have large pages, of which there are few. No memory is used before the array
// is.
void adviseHugePages(void* data, std::size_t bytes);

// Has the system supply the memory of an array at once, and not page by page.
// REQUIRES: it will be filled to its end, or memory is taken that nobody needs.
void supplyPages(void* data, std::size_t bytes);

}  // namespace mlnn
