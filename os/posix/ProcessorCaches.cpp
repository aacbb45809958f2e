#include "os/ProcessorCaches.h"

#include <unistd.h>

namespace mlnn {

#ifdef _SC_LEVEL2_CACHE_SIZE
std::size_t processorCache(int level) {
  const long bytes = sysconf(level == 2 ? _SC_LEVEL2_CACHE_SIZE : _SC_LEVEL3_CACHE_SIZE);
  return bytes > 0 ? static_cast<std::size_t>(bytes) : 0;
}
#else
std::size_t processorCache(int) { return 0; }
#endif

}  // namespace mlnn
