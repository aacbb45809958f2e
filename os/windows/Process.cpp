#include "os/Process.h"

namespace mlnn {

// Nothing forks.
long processNumber() { return 0; }

// The system has a thread of its own for what comes from outside.
void startWithoutSignals(const std::function<void()>& start) { start(); }

}  // namespace mlnn
