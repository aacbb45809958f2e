// What went wrong, in the numbers that messages are made of. For the sources of this folder alone.
#pragma once

#include "os/windows/Windows.h"

namespace mlnn {

// Returns the errno that comes nearest to what GetLastError tells; EIO for what has none.
int errnoOf(DWORD error);

}  // namespace mlnn
