// printOutOfMemory — the last thing to say when there is no memory left.
#pragma once

#include <iostream>

namespace mlnn {

inline constexpr char kOutOfMemory[] = "ERROR: out of memory\n";

// Takes no memory itself.
inline void printOutOfMemory() { std::cerr << kOutOfMemory; }

}  // namespace mlnn
