// Watch — how work that takes a while tells how far it is, and how it is stopped.
#pragma once

#include <cstddef>
#include <functional>

namespace mlnn {

// Is called by the thread that works, several times a second, with the number of steps that were
// done since the last call; 0 where there is nothing to count yet. What a step is, the work says.
// To stop the work, throw: what it throws passes through, and the work leaves behind what its
// header says. An empty one watches nothing.
using Watch = std::function<void(std::size_t steps)>;

// Tells a watch, if there is one.
inline void tell(const Watch& watch, std::size_t steps) {
  if (watch) watch(steps);
}

}  // namespace mlnn
