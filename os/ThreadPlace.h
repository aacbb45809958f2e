// On which processor a thread runs. Internal: not installed.
#pragma once

namespace mlnn {

// The processor that runs the calling thread just now; -1 where the system does not tell.
int processorInUse();

// If the calling thread runs on this processor (one that processorInUse gave), moves it to another
// one that it may run on, now; where the system decides again later, all of those are open to it.
// Without effect where there is no other, and on systems that have no call for it.
void leaveProcessor(int processor);

}  // namespace mlnn
