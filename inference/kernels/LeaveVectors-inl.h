// The kernels as others call them. Compiling for size, g++ leaves the upper halves of AVX2's
// registers in use behind a function, which slows down all arithmetic without AVX from there on,
// the caller's too; clang clears them, and so does g++ otherwise. Compiled once for every
// instruction set.
#if defined(MLNN_LEAVE_VECTORS_INL_H) == defined(HWY_TARGET_TOGGLE)
#ifdef MLNN_LEAVE_VECTORS_INL_H
#undef MLNN_LEAVE_VECTORS_INL_H
#else
#define MLNN_LEAVE_VECTORS_INL_H
#endif

#include "hwy/highway.h"
#include "layers/BuiltForSize.h"

HWY_BEFORE_NAMESPACE();
namespace mlnn {
namespace HWY_NAMESPACE {

#if MLNN_BUILT_FOR_SIZE && HWY_TARGET == HWY_AVX2 && !HWY_COMPILER_CLANG
constexpr bool kClearsVectors = true;
struct ClearedVectors {
  ~ClearedVectors() { _mm256_zeroupper(); }
};
#else
constexpr bool kClearsVectors = false;
struct ClearedVectors {};
#endif

template <auto kKernel>
struct Clearing;

template <typename Result, typename... Arguments, Result (*kKernel)(Arguments...)>
struct Clearing<kKernel> {
  static Result run(Arguments... arguments) {
    [[maybe_unused]] const ClearedVectors behind;
    return kKernel(arguments...);
  }
};

// Returns what calls kKernel and leaves the registers as others expect them.
template <auto kKernel>
constexpr auto asKernel() {
  if constexpr (kClearsVectors) {
    return &Clearing<kKernel>::run;
  } else {
    return kKernel;
  }
}

}  // namespace HWY_NAMESPACE
}  // namespace mlnn
HWY_AFTER_NAMESPACE();

#endif  // per-target include guard
