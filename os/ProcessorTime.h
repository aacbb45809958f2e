// How long the processor has worked for a thread. Internal: not installed.
#pragma once

namespace mlnn {

// Seconds that the processor has spent on the calling thread, from some point in time on; in steps
// of less than a microsecond. Where the system counts a thread's time in steps that are too long to
// measure by, the time that passes.
double processorSeconds();

}  // namespace mlnn
