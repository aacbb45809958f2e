#include <pthread.h>

#include "os/Process.h"

namespace mlnn {

void callAroundForks(void (*before)(), void (*inParent)(), void (*inChild)()) {
  pthread_atfork(before, inParent, inChild);
}

}  // namespace mlnn
