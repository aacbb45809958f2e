// What a process is to its threads. Internal: not installed.
#pragma once

#include <functional>

namespace mlnn {

// The number of this process. A child that was forked has another one; where nothing forks, it is
// the same for ever.
long processNumber();

// Whether this thread is the one that the process began with. True where that is not known.
bool isFirstThread();

// From then on calls these around each fork: in the parent before and after it, in the child after
// it. Where nothing forks, none of them.
void callAroundForks(void (*before)(), void (*inParent)(), void (*inChild)());

// Calls `start`. Threads that it starts leave signals to the threads of the program, but for those
// that tell of what they do themselves. Nothing may be thrown.
void startWithoutSignals(const std::function<void()>& start);

}  // namespace mlnn
