// Threads — threads that share the work of forward passes (FwdPass::setThreads).
#pragma once

#include <memory>

#include "features/Export.h"

namespace mlnn {

// The thread that calls `evaluate` is one of them. The others sleep while there is nothing to do,
// but look for the next evaluation for 300 microseconds first, since waking takes long.
//
// Thread-safety: passes of several threads may have the same Threads. One evaluation at a time
// gets them; another one runs in its own thread meanwhile, with the same bits.
// A child process that was forked has none of them: there everything runs in the calling thread.
class MLNN_EXPORT Threads {
 public:
  // As many threads as there are at most.
  static constexpr int kMost = 256;

  // Starts `count` - 1 threads. Less than 1 counts as 1, more than kMost as kMost.
  // Returns: never null. Where the system gives fewer threads, or has none, those that there are:
  // count() tells.
  static std::shared_ptr<Threads> start(int count);

  // Ends the threads, and waits until they are gone.
  virtual ~Threads();
  Threads(const Threads&) = delete;
  Threads& operator=(const Threads&) = delete;

  // The threads, with the calling one: at least 1.
  virtual int count() const = 0;

  // Returns the processors that this process may run on; 1 where the system does not tell.
  static int processors();

 private:
  friend class StackThreads;
  Threads();
};

}  // namespace mlnn
