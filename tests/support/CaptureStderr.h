// CaptureStderr — records what is written to the standard error stream, by whatever way.
#pragma once

#include <string>

namespace mlnn::test {

// From its construction until text() or its destruction, everything that goes to file
// descriptor 2 ends in a temporary file instead: what std::cerr writes as well as what
// printf-style functions and child processes do. Captures may be nested.
// Thread-safety: the descriptor belongs to the process; capture from one thread at a time.
class CaptureStderr {
 public:
  // Throws std::system_error when the descriptor cannot be redirected.
  CaptureStderr();
  ~CaptureStderr();
  CaptureStderr(const CaptureStderr&) = delete;
  CaptureStderr& operator=(const CaptureStderr&) = delete;

  // Ends the capture, if it has not ended, and returns everything captured.
  std::string text();

 private:
  void restore() noexcept;

  int file_;
  int saved_;  // the descriptor as it was before; -1 once it is back in place
};

// Runs `action` and returns what it wrote to the standard error stream.
template <typename Action>
std::string stderrOf(Action action) {
  CaptureStderr capture;
  action();
  return capture.text();
}

}  // namespace mlnn::test
