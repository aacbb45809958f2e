#include "os/EndingSignals.h"

#include <cerrno>

#include "os/windows/Windows.h"

namespace mlnn {
namespace {

// The system calls a handler in a thread of its own; this keeps it apart from the others.
SRWLOCK lock = SRWLOCK_INIT;
void (*cleanBeforeEnd)() = nullptr;

// The lock stays with it, so that nothing new is begun before the process is gone.
BOOL WINAPI cleanAndDie(DWORD) {
  AcquireSRWLockExclusive(&lock);
  if (cleanBeforeEnd != nullptr) cleanBeforeEnd();
  return FALSE;  // the system's own handler, which ends the process, comes next
}

}  // namespace

// REQUIRES: an EndingSignalsWait lives.
void callBeforeEnd(void (*clean)()) {
  static const bool isHandled = SetConsoleCtrlHandler(cleanAndDie, TRUE) != 0;
  static_cast<void>(isHandled);
  cleanBeforeEnd = clean;
}

EndingSignalsWait::EndingSignalsWait() {
  AcquireSRWLockExclusive(&lock);
  before_[0] = 0;
}

EndingSignalsWait::~EndingSignalsWait() {
  const int error = errno;
  ReleaseSRWLockExclusive(&lock);
  errno = error;
}

}  // namespace mlnn
