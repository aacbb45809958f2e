// SilencedStderr — while it lives, nothing that is written to the standard error stream shows,
// by whatever way it is written (tools/CapturedDiagnostics.h gathers what goes to std::cerr
// alone). Thread-safety: the descriptor belongs to the process.
#pragma once

namespace mlnn {

class SilencedStderr {
 public:
  // Where the descriptor cannot be redirected, all shows as before.
  SilencedStderr();
  ~SilencedStderr();
  SilencedStderr(const SilencedStderr&) = delete;
  SilencedStderr& operator=(const SilencedStderr&) = delete;

 private:
  int shown_;  // what the descriptor was; -1 where it was left alone
};

}  // namespace mlnn
