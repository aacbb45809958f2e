// What compilers offer beyond the standard, by one name each; a compiler that offers nothing gets
// the standard's. Internal: not installed.
#pragma once

#include <cstdint>

namespace mlnn {

#ifdef __GNUC__

// The number of zeros before the lowest, and before the highest bit that is set. REQUIRES: one is.
inline int zerosBelow(uint64_t bits) { return __builtin_ctzll(bits); }
inline int zerosAbove(uint64_t bits) { return __builtin_clzll(bits); }

// Has the processor fetch what lies there, which need not exist; the second, where it is not wanted
// in the innermost cache.
inline void prefetch(const void* address) { __builtin_prefetch(address); }
inline void prefetchOuter(const void* address) { __builtin_prefetch(address, 0, 2); }

#else

inline int zerosBelow(uint64_t bits) {
  int zeros = 0;
  for (; (bits & 1) == 0; bits >>= 1) ++zeros;
  return zeros;
}
inline int zerosAbove(uint64_t bits) {
  int zeros = 0;
  for (; bits >> 63 == 0; bits <<= 1) ++zeros;
  return zeros;
}

inline void prefetch(const void*) {}
inline void prefetchOuter(const void*) {}

#endif

}  // namespace mlnn
