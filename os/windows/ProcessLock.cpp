#include "os/ProcessLock.h"

#include "os/windows/Windows.h"

namespace mlnn {
namespace {

SRWLOCK lock = SRWLOCK_INIT;

}  // namespace

ProcessLock::ProcessLock() { AcquireSRWLockExclusive(&lock); }

ProcessLock::~ProcessLock() { ReleaseSRWLockExclusive(&lock); }

}  // namespace mlnn
