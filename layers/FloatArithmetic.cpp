// Refuses a build whose floating-point arithmetic is not what the results of this library
// are defined by: IEEE 754 binary32, every operation rounded to the type that it is written in.
#include <cfloat>
#include <limits>

static_assert(std::numeric_limits<float>::is_iec559 && std::numeric_limits<float>::digits == 24,
              "float must be IEEE 754 binary32");
static_assert(FLT_EVAL_METHOD == 0,
              "float arithmetic must be done in float; on 32-bit x86 use -msse2 -mfpmath=sse");
#ifdef __FAST_MATH__
#error "mlnn must not be built with -ffast-math: it changes results, and hides NaN and infinity"
#endif
