#include "os/Process.h"

namespace mlnn {

bool isFirstThread() { return true; }

}  // namespace mlnn
