// What a process is to its threads. Internal: not installed.
#pragma once

#include <functional>

namespace mlnn {

// The number of this process. A child that was forked has another one; where nothing forks, it is
// the same for ever.
long processNumber();

// Calls `start`. Threads that it starts leave signals to the threads of the program, but for those
// that tell of what they do themselves. Nothing may be thrown.
void startWithoutSignals(const std::function<void()>& start);

}  // namespace mlnn
