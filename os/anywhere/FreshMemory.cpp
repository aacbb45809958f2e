// For systems that supply memory as it is used, and give no advice on it.
#include "os/FreshMemory.h"

namespace mlnn {

void adviseHugePages(void*, std::size_t) {}

void supplyPages(void*, std::size_t) {}

}  // namespace mlnn
