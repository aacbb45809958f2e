#include <sys/syscall.h>
#include <unistd.h>

#include "os/Process.h"

namespace mlnn {

bool isFirstThread() { return getpid() == syscall(SYS_gettid); }

}  // namespace mlnn
