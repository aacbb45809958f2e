// For systems that are left to place threads by themselves.
#include "os/ThreadPlace.h"

namespace mlnn {

int processorInUse() { return -1; }

void leaveProcessor(int) {}

}  // namespace mlnn
