// One lock for the whole process, for what is short. Not std::mutex: what that may throw would come
// along, which is much code for a small device.
// Internal: not installed.
#pragma once

namespace mlnn {

// Holds the lock while it lives. Nothing that takes it may be called meanwhile.
class ProcessLock {
 public:
  ProcessLock();
  ~ProcessLock();
  ProcessLock(const ProcessLock&) = delete;
  ProcessLock& operator=(const ProcessLock&) = delete;
};

}  // namespace mlnn
