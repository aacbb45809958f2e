// BuiltForSize — whether the compiler was asked for little code rather than for fast code, which
// -Os and -Oz do. Results are the same to the bit. Internal: not installed.
#pragma once

#ifdef __OPTIMIZE_SIZE__
#define MLNN_BUILT_FOR_SIZE 1
#else
#define MLNN_BUILT_FOR_SIZE 0
#endif

namespace mlnn {

constexpr bool kBuiltForSize = MLNN_BUILT_FOR_SIZE != 0;

}  // namespace mlnn
