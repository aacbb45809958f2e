#include "os/Memory.h"

#include "os/windows/Windows.h"

namespace mlnn {

uint64_t memoryOfProcess() {
  MEMORYSTATUSEX status{};
  status.dwLength = sizeof status;
  return GlobalMemoryStatusEx(&status) != 0 ? status.ullTotalPhys : 0;
}

}  // namespace mlnn
