#include "os/ThreadPlace.h"

#include <sched.h>

namespace mlnn {

int processorInUse() { return sched_getcpu(); }

void leaveProcessor(int processor) {
  if (processor < 0 || sched_getcpu() != processor) return;
  cpu_set_t allowed;
  if (sched_getaffinity(0, sizeof allowed, &allowed) != 0) return;
  cpu_set_t others = allowed;
  CPU_CLR(static_cast<unsigned>(processor), &others);
  if (CPU_COUNT(&others) == 0 || sched_setaffinity(0, sizeof others, &others) != 0) return;
  sched_setaffinity(0, sizeof allowed, &allowed);
}

}  // namespace mlnn
