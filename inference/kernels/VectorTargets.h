// Which instruction sets the kernels are compiled for. To be included before Highway, by every file
// that Highway includes once for each of them.
//
// SSE4, AVX2 and AVX-512 cover the x86 processors of the last fifteen years. The kernels know the
// number of lanes when compiled, so scalable vectors are left out. Built for size, x86 has AVX2,
// and loops without vectors for processors that lack it: AVX-512 gives the same bits as the one,
// and SSE4 the same as the other.
#pragma once

#include "layers/BuiltForSize.h"

#ifndef HWY_DISABLED_TARGETS
#define MLNN_LEFT_OUT_TARGETS \
  (HWY_SSSE3 | HWY_AVX3_DL | HWY_SVE | HWY_SVE2 | HWY_SVE_256 | HWY_SVE2_128 | HWY_RVV)
#if MLNN_BUILT_FOR_SIZE
#define HWY_DISABLED_TARGETS (MLNN_LEFT_OUT_TARGETS | HWY_SSE4 | HWY_AVX3)
#else
#define HWY_DISABLED_TARGETS MLNN_LEFT_OUT_TARGETS
#endif
#define HWY_DISABLE_PCLMUL_AES
#define HWY_DISABLE_F16C
#endif
