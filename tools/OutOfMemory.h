// printOutOfMemory — the last thing to say when there is no memory left.
#pragma once

#include <iostream>

namespace mlnn {

// Takes no memory itself.
inline void printOutOfMemory() { std::cerr << "ERROR: out of memory\n"; }

}  // namespace mlnn
