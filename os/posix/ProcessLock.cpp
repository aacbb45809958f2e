#include "os/ProcessLock.h"

#include <pthread.h>

namespace mlnn {
namespace {

pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;

}  // namespace

ProcessLock::ProcessLock() { pthread_mutex_lock(&mutex); }

ProcessLock::~ProcessLock() { pthread_mutex_unlock(&mutex); }

}  // namespace mlnn
