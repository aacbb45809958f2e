// Processor — which instruction sets the processor has that this runs on. What the operating
// system must do for them counts as well.
// Internal: not installed.
#pragma once

#include "hwy/detect_compiler_arch.h"

#if HWY_ARCH_X86 && defined(__GNUC__)
#include <cpuid.h>
#elif HWY_ARCH_ARM && defined(__linux__)
#include <sys/auxv.h>
#endif

namespace mlnn {

#if HWY_ARCH_X86 && defined(__GNUC__)

[[maybe_unused]] inline bool hasSse4() {
  return __builtin_cpu_supports("sse4.1") && __builtin_cpu_supports("sse4.2") &&
         __builtin_cpu_supports("ssse3");
}

[[maybe_unused]] inline bool hasAvx2() {
  return hasSse4() && __builtin_cpu_supports("avx2") && __builtin_cpu_supports("fma") &&
         __builtin_cpu_supports("bmi") && __builtin_cpu_supports("bmi2");
}

[[maybe_unused]] inline bool hasAvx512() {
  return hasAvx2() && __builtin_cpu_supports("avx512f") && __builtin_cpu_supports("avx512bw") &&
         __builtin_cpu_supports("avx512dq") && __builtin_cpu_supports("avx512cd") &&
         __builtin_cpu_supports("avx512vl");
}

// Products of four 8-bit values, on vectors of 512 and of 256 bits.
[[maybe_unused]] inline bool hasAvx512Vnni() {
  return hasAvx512() && __builtin_cpu_supports("avx512vnni");
}

[[maybe_unused]] inline bool hasAvxVnni() {
  constexpr unsigned kAvxVnni = 1U << 4;
  unsigned eax = 0;
  unsigned ebx = 0;
  unsigned ecx = 0;
  unsigned edx = 0;
  return hasAvx2() && __get_cpuid_count(7, 1, &eax, &ebx, &ecx, &edx) != 0 && (eax & kAvxVnni) != 0;
}

#elif HWY_ARCH_X86  // of a compiler that does not tell: none beyond the baseline

[[maybe_unused]] inline bool hasSse4() { return false; }
[[maybe_unused]] inline bool hasAvx2() { return false; }
[[maybe_unused]] inline bool hasAvx512() { return false; }
[[maybe_unused]] inline bool hasAvx512Vnni() { return false; }
[[maybe_unused]] inline bool hasAvxVnni() { return false; }

#elif HWY_ARCH_ARM_A64

[[maybe_unused]] inline bool hasNeon() { return true; }

// Products of four 8-bit values.
[[maybe_unused]] inline bool hasDotProducts() {
#if defined(__ARM_FEATURE_DOTPROD)
  return true;
#elif defined(__linux__)
  constexpr unsigned long kDotProducts = 1UL << 20;
  return (getauxval(AT_HWCAP) & kDotProducts) != 0;
#else
  return false;
#endif
}

#elif HWY_ARCH_ARM_V7

[[maybe_unused]] inline bool hasNeon() {
#if defined(__ARM_NEON)
  return true;
#elif defined(__linux__)
  constexpr unsigned long kNeon = 1UL << 12;
  return (getauxval(AT_HWCAP) & kNeon) != 0;
#else
  return false;
#endif
}

#endif

}  // namespace mlnn
