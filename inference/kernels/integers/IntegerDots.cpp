// The products of 8-bit values that each instruction set has. Highway has none of four of them, so
// these are the compilers' own intrinsics, chosen by the same tests as the other kernels.
#include "inference/kernels/integers/IntegerDots.h"

#include <cstring>

#include "hwy/base.h"
#include "inference/kernels/Processor.h"
#include "inference/kernels/RunnableKernels.h"
#include "layers/BuiltForSize.h"
#include "os/Builtins.h"

#if HWY_ARCH_X86
#include <immintrin.h>
#elif HWY_ARCH_ARM_A64
#define MLNN_HAS_NEON 1
#include <arm_neon.h>
#define MLNN_PUSH_NEON
#define MLNN_POP_NEON
#elif HWY_ARCH_ARM_V7 && HWY_COMPILER_GCC && !HWY_COMPILER_CLANG
// 32-bit ARM may be without NEON. Integers have no denormal values that it could lose.
#define MLNN_HAS_NEON 1
#pragma GCC push_options
#pragma GCC target("fpu=neon")
#include <arm_neon.h>
#pragma GCC pop_options
#define MLNN_PUSH_NEON HWY_PUSH_ATTRIBUTES("fpu=neon")
#define MLNN_POP_NEON HWY_POP_ATTRIBUTES
#endif

// Clang knows dot products only where the whole file may use them, g++ everywhere.
#if HWY_ARCH_ARM_A64 && defined(__ARM_FEATURE_DOTPROD)
#define MLNN_HAS_NEON_DOT_PRODUCTS 1
#define MLNN_PUSH_DOT_PRODUCTS
#define MLNN_POP_DOT_PRODUCTS
#elif HWY_ARCH_ARM_A64 && HWY_COMPILER_GCC && !HWY_COMPILER_CLANG
#define MLNN_HAS_NEON_DOT_PRODUCTS 1
#define MLNN_PUSH_DOT_PRODUCTS HWY_PUSH_ATTRIBUTES("arch=armv8.2-a+dotprod")
#define MLNN_POP_DOT_PRODUCTS HWY_POP_ATTRIBUTES
#endif

namespace mlnn {
namespace {

// Where a library is built for size, several frames go through one by one.
constexpr unsigned framesOf(unsigned best) { return kBuiltForSize ? 1 : best; }

#if HWY_ARCH_ARM
constexpr int kRegisters = HWY_ARCH_ARM_A64 ? 32 : 16;
#endif

std::size_t groupsOf(const RowCodesView& codes) {
  return static_cast<std::size_t>(rowCodeGroups(codes.cols));
}

void stayAsTheyAre(int8_t*, std::size_t) {}

[[maybe_unused]] int32_t fourBytes(const int8_t* from) {
  int32_t four;
  std::memcpy(&four, from, sizeof four);
  return four;
}

// For processors that multiply two values of 16 bits: the first and third, then the second and
// fourth of each group of inputs, as the bytes of codes come apart.
[[maybe_unused]] void arrangeInPairs(int8_t* bytes, std::size_t count) {
  constexpr std::size_t kOrder[] = {0, 2, 1, 3};
  for (std::size_t at = count; at > 0;) {
    at -= kRowCodeGroup;
    int16_t group[kRowCodeGroup];
    for (std::size_t i = 0; i < kRowCodeGroup; ++i) group[i] = bytes[at + kOrder[i]];
    std::memcpy(bytes + at * sizeof(int16_t), group, sizeof group);
  }
}

namespace plain {

template <bool kHalfBytes>
void addGroup(const uint8_t* group, const int8_t* x, int32_t* sums) {
  constexpr std::size_t kHalf = kRowCodeBlock / 2;
  for (std::size_t row = 0; row < kRowCodePanel; ++row) {
    int32_t sum = 0;
    for (std::size_t k = 0; k < kRowCodeGroup; ++k) {
      const std::size_t i = row * kRowCodeGroup + k;
      int code = 0;
      if (!kHalfBytes) {
        code = group[i] - rowCodeBias(8);
      } else {
        code = (i < kHalf ? group[i] & 15 : group[i - kHalf] >> 4) - rowCodeBias(4);
      }
      sum += code * x[k];
    }
    sums[row] += sum;
  }
}

template <bool kHalfBytes>
void sumPanel(const RowCodesView& codes, std::size_t panel, const int8_t* x, int32_t* sums) {
  std::memset(sums, 0, kRowCodePanel * sizeof *sums);
  const std::size_t groups = groupsOf(codes);
  const std::size_t groupBytes = rowCodeBlockBytes(codes.bits);
  const uint8_t* group = codes.codes + panel * groups * groupBytes;
  for (std::size_t g = 0; g < groups; ++g) {
    addGroup<kHalfBytes>(group, x + g * kRowCodeGroup, sums);
    group += groupBytes;
  }
}

void dots(const RowCodesView& codes, std::size_t first, std::size_t panels, const ByteFrames& x,
          const CodesAhead&, int32_t* sums) {
  const auto sum = codes.bits == 4 ? sumPanel<true> : sumPanel<false>;
  for (std::size_t f = 0; f < x.frames; ++f) {
    for (std::size_t p = 0; p < panels; ++p) {
      sum(codes, first + p, x.bytes + f * x.stride, sums);
      sums += kRowCodePanel;
    }
  }
}

constexpr DotKernels kDots = {"plain", {4, 1}, {4, 1}, 1, stayAsTheyAre, dots};

}  // namespace plain

// --- What a kernel leaves behind ---

struct ShortVectors {
  static void leave() {}
};

#if HWY_ARCH_X86
// Compiling for size, g++ does not clear the upper halves of registers (LeaveVectors-inl.h).
HWY_PUSH_ATTRIBUTES("avx")
struct LongVectors {
  static HWY_INLINE void leave() {
#if MLNN_BUILT_FOR_SIZE && !HWY_COMPILER_CLANG
    _mm256_zeroupper();
#endif
  }
};
HWY_POP_ATTRIBUTES
#endif

#if HWY_ARCH_X86

// --- Products of two values of 16 bits (SSE2, AVX-512 without more), or of 8 bits in 16 (AVX2) ---

HWY_PUSH_ATTRIBUTES("sse2")
namespace sse2 {

struct Vectors : ShortVectors {
  struct Codes {
    __m128i even;
    __m128i odd;
  };
  using Inputs = Codes;
  using Sums = __m128i;
  static constexpr int kParts = 4;
  static constexpr bool kSigned = false;
  static constexpr int kStep = 1;
  static constexpr std::size_t kInputBytes = 8;
  static constexpr int kFrames = framesOf(3);
  static constexpr int partsFor(int) { return 2; }
  static constexpr int kLineParts = 4;
  static constexpr int kLineChains = 1;
  static constexpr bool kLineFetches = true;

  static HWY_INLINE Sums splat(int32_t value) { return _mm_set1_epi32(value); }
  static HWY_INLINE Codes load(const uint8_t* group, int bits, int part) {
    const int vector = bits == 8 ? part : part % 2;
    __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i*>(group) + vector);
    if (bits == 8) return {_mm_and_si128(v, _mm_set1_epi16(255)), _mm_srli_epi16(v, 8)};
    if (part >= 2) v = _mm_srli_epi16(v, 4);
    const __m128i low = _mm_set1_epi16(15);
    return {_mm_and_si128(v, low), _mm_and_si128(_mm_srli_epi16(v, 8), low)};
  }
  static HWY_INLINE Inputs inputs(const int8_t* group) {
    return {_mm_set1_epi32(fourBytes(group)), _mm_set1_epi32(fourBytes(group + 4))};
  }
  static HWY_INLINE Sums dot(Sums sums, Codes codes, Inputs x) {
    sums = _mm_add_epi32(sums, _mm_madd_epi16(codes.even, x.even));
    return _mm_add_epi32(sums, _mm_madd_epi16(codes.odd, x.odd));
  }
  static HWY_INLINE Sums add(Sums a, Sums b) { return _mm_add_epi32(a, b); }
  static HWY_INLINE void store(Sums sums, int32_t* to) {
    _mm_storeu_si128(reinterpret_cast<__m128i*>(to), sums);
  }
};

#include "inference/kernels/integers/IntegerTiles-inl.h"

constexpr DotKernels kDots = {"SSE2", {4, framesOf(3)}, {4, framesOf(3)}, 2, arrangeInPairs, dots};

}  // namespace sse2
HWY_POP_ATTRIBUTES

HWY_PUSH_ATTRIBUTES("avx,avx2")

// Sums of eight outputs.
struct Vectors256 : LongVectors {
  using Sums = __m256i;
  static constexpr int kParts = 2;
  static constexpr bool kSigned = false;
  static constexpr int kStep = 1;

  static HWY_INLINE Sums splat(int32_t value) { return _mm256_set1_epi32(value); }
  static HWY_INLINE Sums add(Sums a, Sums b) { return _mm256_add_epi32(a, b); }
  static HWY_INLINE void store(Sums sums, int32_t* to) {
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(to), sums);
  }
};

// Two products of 8 bits fit into 16 where codes are signed and inputs are not: 2 * 127 * 128 is
// 32512. So codes lose their offset, and take over the signs of the inputs.
struct Bytes256 : Vectors256 {
  using Codes = __m256i;
  static constexpr bool kSigned = true;
  static constexpr std::size_t kInputBytes = 4;
  static constexpr int kFrames = framesOf(5);
  static constexpr int partsFor(int) { return 2; }
  static constexpr int kLineParts = 8;
  static constexpr int kLineChains = 1;
  static constexpr bool kLineFetches = false;

  static HWY_INLINE Codes load(const uint8_t* group, int bits, int part) {
    const int vector = bits == 8 ? part : 0;
    __m256i v = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(group) + vector);
    if (bits == 8) return _mm256_xor_si256(v, _mm256_set1_epi8(-128));
    if (part == 1) v = _mm256_srli_epi16(v, 4);
    return _mm256_sub_epi8(_mm256_and_si256(v, _mm256_set1_epi8(15)), _mm256_set1_epi8(8));
  }
  static HWY_INLINE Sums addProducts(Sums sums, __m256i sizes, __m256i codes) {
    const __m256i pairs = _mm256_maddubs_epi16(sizes, codes);
    return _mm256_add_epi32(sums, _mm256_madd_epi16(pairs, _mm256_set1_epi16(1)));
  }
};

namespace avx2 {
namespace anySign {

struct Vectors : Bytes256 {
  struct Inputs {
    __m256i values;
    __m256i sizes;
  };

  static HWY_INLINE Inputs inputs(const int8_t* group) {
    const __m256i values = _mm256_set1_epi32(fourBytes(group));
    return {values, _mm256_abs_epi8(values)};
  }
  static HWY_INLINE Sums dot(Sums sums, Codes codes, Inputs x) {
    return addProducts(sums, x.sizes, _mm256_sign_epi8(codes, x.values));
  }
};

#include "inference/kernels/integers/IntegerTiles-inl.h"

}  // namespace anySign

namespace noSign {

struct Vectors : Bytes256 {
  using Inputs = __m256i;

  static HWY_INLINE Inputs inputs(const int8_t* group) {
    return _mm256_set1_epi32(fourBytes(group));
  }
  static HWY_INLINE Sums dot(Sums sums, Codes codes, Inputs x) {
    return addProducts(sums, x, codes);
  }
};

#include "inference/kernels/integers/IntegerTiles-inl.h"

}  // namespace noSign

void dots(const RowCodesView& codes, std::size_t first, std::size_t panels, const ByteFrames& x,
          const CodesAhead& ahead, int32_t* sums) {
  const auto sum = x.areNonNegative && !kBuiltForSize ? noSign::dots : anySign::dots;
  sum(codes, first, panels, x, ahead, sums);
}

constexpr DotKernels kDots = {"AVX2", {4, framesOf(5)}, {4, framesOf(5)}, 1, stayAsTheyAre, dots};

}  // namespace avx2
HWY_POP_ATTRIBUTES

HWY_PUSH_ATTRIBUTES("avx,avx2,avx512f,avx512bw")

// Sums of sixteen outputs, and lines of their codes.
struct Vectors512 : LongVectors {
  using Sums = __m512i;
  using Line = __m512i;
  using Lanes = __mmask16;
  static constexpr int kParts = 1;
  static constexpr bool kSigned = false;
  static constexpr int kStep = 1;
  static constexpr int kSeamPanels = 4;
  static constexpr int kSeamChains = 2;

  static HWY_INLINE Sums splat(int32_t value) { return _mm512_set1_epi32(value); }
  static HWY_INLINE Sums add(Sums a, Sums b) { return _mm512_add_epi32(a, b); }
  static HWY_INLINE void store(Sums sums, int32_t* to) { _mm512_storeu_si512(to, sums); }

  // Half bytes as bytes, among which the other halves still are.
  static HWY_INLINE __m512i bothHalves(const uint8_t* group) {
    const __m256i low = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(group));
    return _mm512_maskz_inserti64x4(0xff, _mm512_castsi256_si512(low), _mm256_srli_epi16(low, 4),
                                    1);
  }

  static HWY_INLINE Lanes lanesFrom(int lane) { return static_cast<Lanes>(0xffffU << lane); }
  static HWY_INLINE Lanes lanesBefore(int lane) { return static_cast<Lanes>((1U << lane) - 1); }
  static HWY_INLINE Line line(const uint8_t* at) { return _mm512_loadu_si512(at); }
  static HWY_INLINE Line lineOf(Lanes lanes, const uint8_t* at) {
    return _mm512_maskz_loadu_epi32(lanes, at);
  }
  static HWY_INLINE void storeTurned(const Sums (&sums)[kParts], int lanes, int32_t* to) {
    const __m512i order = _mm512_setr_epi32(0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15);
    const __m512i places = _mm512_add_epi32(order, _mm512_set1_epi32(lanes));
    store(_mm512_maskz_permutexvar_epi32(0xffff, places, sums[0]), to);
  }
};

namespace avx512 {

struct Vectors : Vectors512 {
  struct Codes {
    __m512i even;
    __m512i odd;
  };
  using Inputs = Codes;
  static constexpr std::size_t kInputBytes = 8;
  static constexpr int kFrames = framesOf(8);
  static constexpr int partsFor(int) { return 2; }
  static constexpr int kLineParts = 2;
  static constexpr int kLineChains = 4;
  static constexpr bool kLineFetches = true;

  static HWY_INLINE Codes load(const uint8_t* group, int bits, int) {
    if (bits == 8) return codesOf(line(group));
    const __m512i v = bothHalves(group);
    const __m512i mask = _mm512_set1_epi16(15);
    return {_mm512_and_si512(v, mask), _mm512_and_si512(_mm512_srli_epi16(v, 8), mask)};
  }
  static HWY_INLINE Inputs inputs(const int8_t* group) {
    return {_mm512_set1_epi32(fourBytes(group)), _mm512_set1_epi32(fourBytes(group + 4))};
  }
  static HWY_INLINE Sums dot(Sums sums, Codes codes, Inputs x) {
    sums = _mm512_add_epi32(sums, _mm512_madd_epi16(codes.even, x.even));
    return _mm512_add_epi32(sums, _mm512_madd_epi16(codes.odd, x.odd));
  }

  static HWY_INLINE Codes codesOf(Line line) {
    return {_mm512_and_si512(line, _mm512_set1_epi16(255)), _mm512_srli_epi16(line, 8)};
  }
  static HWY_INLINE Inputs mixed(Lanes lanes, Inputs a, Inputs b) {
    return {_mm512_mask_mov_epi32(a.even, lanes, b.even),
            _mm512_mask_mov_epi32(a.odd, lanes, b.odd)};
  }
};

#include "inference/kernels/integers/IntegerTiles-inl.h"
#include "inference/kernels/integers/IntegerTilesAnywhere-inl.h"

constexpr DotKernels kDots = {"AVX-512", {4, framesOf(8)}, {4, framesOf(8)},
                              2,         arrangeInPairs,   dotsAnywhere};

}  // namespace avx512
HWY_POP_ATTRIBUTES

// --- Products of four values of 8 bits ---

HWY_PUSH_ATTRIBUTES("avx,avx2,avxvnni")
namespace avxvnni {

struct Vectors : Vectors256 {
  using Codes = __m256i;
  using Inputs = __m256i;
  using Line = __m256i;
  using Lanes = __m256i;
  static constexpr std::size_t kInputBytes = 4;
  static constexpr int kFrames = framesOf(3);
  static constexpr int partsFor(int) { return 4; }
  static constexpr int kLineParts = 2;
  static constexpr int kLineChains = 4;
  static constexpr bool kLineFetches = true;
  static constexpr int kSeamPanels = 2;
  static constexpr int kSeamChains = 2;

  static HWY_INLINE Codes load(const uint8_t* group, int bits, int part) {
    const int vector = bits == 8 ? part : 0;
    __m256i v = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(group) + vector);
    if (bits == 8) return v;
    if (part == 1) v = _mm256_srli_epi16(v, 4);
    return _mm256_and_si256(v, _mm256_set1_epi8(15));
  }
  static HWY_INLINE Inputs inputs(const int8_t* group) {
    return _mm256_set1_epi32(fourBytes(group));
  }
  static HWY_INLINE Sums dot(Sums sums, Codes codes, Inputs x) {
    return _mm256_dpbusd_avx_epi32(sums, codes, x);
  }

  static HWY_INLINE Lanes lanesFrom(int lane) {
    return _mm256_cmpgt_epi32(_mm256_setr_epi32(0, 1, 2, 3, 4, 5, 6, 7),
                              _mm256_set1_epi32(lane - 1));
  }
  static HWY_INLINE Lanes lanesBefore(int lane) {
    return _mm256_cmpgt_epi32(_mm256_set1_epi32(lane), _mm256_setr_epi32(0, 1, 2, 3, 4, 5, 6, 7));
  }
  static HWY_INLINE Line line(const uint8_t* at) {
    return _mm256_loadu_si256(reinterpret_cast<const __m256i*>(at));
  }
  static HWY_INLINE Line lineOf(Lanes lanes, const uint8_t* at) {
    return _mm256_maskload_epi32(reinterpret_cast<const int*>(at), lanes);
  }
  static HWY_INLINE Codes codesOf(Line line) { return line; }
  static HWY_INLINE Inputs mixed(Lanes lanes, Inputs a, Inputs b) {
    return _mm256_blendv_epi8(a, b, lanes);
  }
  static HWY_INLINE void storeTurned(const Sums (&sums)[kParts], int lanes, int32_t* to) {
    const __m256i order = _mm256_setr_epi32(0, 1, 2, 3, 4, 5, 6, 7);
    const __m256i places = _mm256_add_epi32(order, _mm256_set1_epi32(lanes));
    const __m256i low = _mm256_permutevar8x32_epi32(sums[0], places);
    const __m256i high = _mm256_permutevar8x32_epi32(sums[1], places);
    const __m256i crossed = _mm256_cmpgt_epi32(places, _mm256_set1_epi32(7));
    store(_mm256_blendv_epi8(low, high, crossed), to);
    store(_mm256_blendv_epi8(high, low, crossed), to + 8);
  }
};

#include "inference/kernels/integers/IntegerTiles-inl.h"
#include "inference/kernels/integers/IntegerTilesAnywhere-inl.h"

constexpr DotKernels kDots = {"AVX-VNNI", {4, framesOf(3)}, {4, framesOf(3)},
                              1,          stayAsTheyAre,    dotsAnywhere};

}  // namespace avxvnni
HWY_POP_ATTRIBUTES

HWY_PUSH_ATTRIBUTES("avx,avx2,avx512f,avx512bw,avx512vnni")
namespace avx512vnni {

struct Vectors : Vectors512 {
  using Codes = __m512i;
  using Inputs = __m512i;
  static constexpr std::size_t kInputBytes = 4;
  static constexpr int kFrames = framesOf(8);
  static constexpr int partsFor(int frames) { return frames > 6 ? 3 : 4; }
  static constexpr int kLineParts = 4;
  static constexpr int kLineChains = 2;
  static constexpr bool kLineFetches = true;

  static HWY_INLINE Codes load(const uint8_t* group, int bits, int) {
    if (bits == 8) return _mm512_loadu_si512(group);
    const __m512i v = bothHalves(group);
    return _mm512_and_si512(v, _mm512_set1_epi8(15));
  }
  static HWY_INLINE Inputs inputs(const int8_t* group) {
    return _mm512_set1_epi32(fourBytes(group));
  }
  static HWY_INLINE Sums dot(Sums sums, Codes codes, Inputs x) {
    return _mm512_dpbusd_epi32(sums, codes, x);
  }

  static HWY_INLINE Codes codesOf(Line line) { return line; }
  static HWY_INLINE Inputs mixed(Lanes lanes, Inputs a, Inputs b) {
    return _mm512_mask_mov_epi32(a, lanes, b);
  }
};

#include "inference/kernels/integers/IntegerTiles-inl.h"
#include "inference/kernels/integers/IntegerTilesAnywhere-inl.h"

constexpr DotKernels kDots = {"AVX-512 VNNI", {3, framesOf(8)}, {4, framesOf(6)}, 1,
                              stayAsTheyAre,  dotsAnywhere};

}  // namespace avx512vnni
HWY_POP_ATTRIBUTES

#endif

#if MLNN_HAS_NEON

// --- ARM: products of 8-bit values, two of them added up in 16 bits ---

MLNN_PUSH_NEON

// Codes of four outputs, and the inputs that they meet.
struct NeonVectors : ShortVectors {
  using Codes = int8x16_t;
  using Inputs = int8x16_t;
  static constexpr int kParts = 4;
  static constexpr bool kSigned = true;
  static constexpr std::size_t kInputBytes = 4;

  static HWY_INLINE Codes load(const uint8_t* group, int bits, int part) {
    if (bits == 8)
      return vreinterpretq_s8_u8(veorq_u8(vld1q_u8(group + part * 16), vdupq_n_u8(128)));
    const uint8x16_t v = vld1q_u8(group + part % 2 * 16);
    const uint8x16_t code = part >= 2 ? vshrq_n_u8(v, 4) : vandq_u8(v, vdupq_n_u8(15));
    return vreinterpretq_s8_u8(vsubq_u8(code, vdupq_n_u8(8)));
  }
  static HWY_INLINE Inputs inputs(const int8_t* group) {
    return vreinterpretq_s8_s32(vdupq_n_s32(fourBytes(group)));
  }
};

namespace neon {

struct Vectors : NeonVectors {
  struct Sums {  // two for each output
    int32x4_t low;
    int32x4_t high;
  };
  static constexpr int kStep = 2;
  static constexpr int kFrames = framesOf(kRegisters >= 32 ? 4 : 2);
  static constexpr int partsFor(int) { return 2; }
  static constexpr int kLineParts = kRegisters >= 32 ? 4 : 2;
  static constexpr int kLineChains = 1;
  static constexpr bool kLineFetches = true;

  static HWY_INLINE Sums splat(int32_t value) { return {vdupq_n_s32(value), vdupq_n_s32(value)}; }
  static HWY_INLINE Sums dot(Sums sums, Codes codes, Inputs x) {
    const int16x8_t low = vmull_s8(vget_low_s8(codes), vget_low_s8(x));
    const int16x8_t high = vmull_s8(vget_high_s8(codes), vget_high_s8(x));
    return {vpadalq_s16(sums.low, low), vpadalq_s16(sums.high, high)};
  }
  // 2 * 127 * 128 is within 16 bits.
  static HWY_INLINE Sums dot(Sums sums, Codes a, Inputs x, Codes b, Inputs y) {
    const int16x8_t low = vmull_s8(vget_low_s8(a), vget_low_s8(x));
    const int16x8_t high = vmull_s8(vget_high_s8(a), vget_high_s8(x));
    return {vpadalq_s16(sums.low, vmlal_s8(low, vget_low_s8(b), vget_low_s8(y))),
            vpadalq_s16(sums.high, vmlal_s8(high, vget_high_s8(b), vget_high_s8(y)))};
  }
  static HWY_INLINE Sums add(Sums a, Sums b) {
    return {vaddq_s32(a.low, b.low), vaddq_s32(a.high, b.high)};
  }
  static HWY_INLINE void store(Sums sums, int32_t* to) {
    const int32x2_t low = vpadd_s32(vget_low_s32(sums.low), vget_high_s32(sums.low));
    const int32x2_t high = vpadd_s32(vget_low_s32(sums.high), vget_high_s32(sums.high));
    vst1q_s32(to, vcombine_s32(low, high));
  }
};

#include "inference/kernels/integers/IntegerTiles-inl.h"

constexpr DotTile kTile = {4, Vectors::kFrames};
constexpr DotKernels kDots = {"NEON", kTile, kTile, 1, stayAsTheyAre, dots};

}  // namespace neon
MLNN_POP_NEON

#endif

#if MLNN_HAS_NEON_DOT_PRODUCTS

// --- ARM: products of four values of 8 bits ---

MLNN_PUSH_DOT_PRODUCTS
namespace neondot {

struct Vectors : NeonVectors {
  using Sums = int32x4_t;
  static constexpr int kStep = 1;
  static constexpr int kFrames = framesOf(kRegisters >= 32 ? 6 : 2);
  static constexpr int partsFor(int) { return 4; }
  static constexpr int kLineParts = 4;
  static constexpr int kLineChains = kRegisters >= 32 ? 4 : 2;
  static constexpr bool kLineFetches = true;

  static HWY_INLINE Sums splat(int32_t value) { return vdupq_n_s32(value); }
  static HWY_INLINE Sums dot(Sums sums, Codes codes, Inputs x) { return vdotq_s32(sums, codes, x); }
  static HWY_INLINE Sums add(Sums a, Sums b) { return vaddq_s32(a, b); }
  static HWY_INLINE void store(Sums sums, int32_t* to) { vst1q_s32(to, sums); }
};

#include "inference/kernels/integers/IntegerTiles-inl.h"

constexpr DotTile kTile = {4, Vectors::kFrames};
constexpr DotKernels kDots = {"NEON dot products", kTile, kTile, 1, stayAsTheyAre, dots};

}  // namespace neondot
MLNN_POP_DOT_PRODUCTS

#endif

using Runnable = RunnableKernels<DotKernels, 6>;

Runnable findRunnable() {
  Runnable found;
#if HWY_ARCH_X86
  if (hasAvx512Vnni()) found.add(avx512vnni::kDots);
  if (hasAvxVnni()) found.add(avxvnni::kDots);
  if (hasAvx512()) found.add(avx512::kDots);
  if (hasAvx2()) found.add(avx2::kDots);
#ifdef __SSE2__
  found.add(sse2::kDots);
#endif
#endif
#if MLNN_HAS_NEON_DOT_PRODUCTS
  if (hasDotProducts()) found.add(neondot::kDots);
#endif
#if MLNN_HAS_NEON
  if (hasNeon()) found.add(neon::kDots);
#endif
  found.add(plain::kDots);
  return found;
}

}  // namespace

std::vector<const DotKernels*> runnableDots() { return findRunnable().all(); }

const DotKernels& bestDots() {
  static const DotKernels& best = findRunnable().best();
  return best;
}

}  // namespace mlnn
