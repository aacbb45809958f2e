// CapturedDiagnostics — while it lives, what goes to std::cerr is gathered instead of shown.
// Not gathered: what is written to the descriptor or to stdio's stderr.
#pragma once

#include <iostream>
#include <sstream>
#include <string>

namespace mlnn {

class CapturedDiagnostics {
 public:
  CapturedDiagnostics() : shown_(std::cerr.rdbuf(gathered_.rdbuf())) {}
  ~CapturedDiagnostics() { std::cerr.rdbuf(shown_); }
  CapturedDiagnostics(const CapturedDiagnostics&) = delete;
  CapturedDiagnostics& operator=(const CapturedDiagnostics&) = delete;

  // Returns what was gathered so far.
  std::string text() const { return gathered_.str(); }

 private:
  std::ostringstream gathered_;
  std::streambuf* shown_;
};

}  // namespace mlnn
