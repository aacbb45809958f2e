// Vectors of floats of one instruction set: the few operations that all kernels share.
// Compiled once for every instruction set.
#if defined(MLNN_VECTOR_OPS_INL_H) == defined(HWY_TARGET_TOGGLE)
#ifdef MLNN_VECTOR_OPS_INL_H
#undef MLNN_VECTOR_OPS_INL_H
#else
#define MLNN_VECTOR_OPS_INL_H
#endif

#include <cstddef>
#include <cstring>

#include "hwy/highway.h"
#include "layers/BuiltForSize.h"

// Whether the instruction set multiplies and adds with one rounding.
#undef MLNN_TARGET_FUSES
#if HWY_TARGET == HWY_AVX2 || HWY_TARGET == HWY_AVX3 || \
    (HWY_TARGET == HWY_NEON && (HWY_ARCH_ARM_A64 || defined(__ARM_FEATURE_FMA)))
#define MLNN_TARGET_FUSES 1
#else
#define MLNN_TARGET_FUSES 0
#endif

HWY_BEFORE_NAMESPACE();
namespace mlnn {
namespace HWY_NAMESPACE {

namespace hn = hwy::HWY_NAMESPACE;

// At most 16 lanes, so that the number of lanes is known when compiling.
using Tag = hn::CappedTag<float, 16>;
using IntTag = hn::RebindToSigned<Tag>;
using Vec = hn::Vec<Tag>;

constexpr std::size_t kLanes = hn::MaxLanes(Tag());

constexpr bool kFuses = MLNN_TARGET_FUSES;

constexpr bool kManyRegisters = kLanes == 16 || HWY_ARCH_ARM_A64;

// Whether a part of a vector is loaded about as fast as the whole.
constexpr bool kLoadsParts = !HWY_MEM_OPS_MIGHT_FAULT;

// Whether what saves time may take more code. A page waits for that of WebAssembly.
#ifdef __wasm__
constexpr bool kSpendsCode = false;
#else
constexpr bool kSpendsCode = !kBuiltForSize;
#endif

#if HWY_TARGET == HWY_SCALAR  // has no halves

template <typename D>
HWY_INLINE hn::Vec<D> loadByHalves(D d, const float* from, std::size_t) {
  return hn::LoadU(d, from);
}

template <typename D>
HWY_INLINE void storeByHalves(D d, hn::Vec<D> v, float* to, std::size_t) {
  hn::StoreU(v, d, to);
}

#else

// The first `count` lanes from memory, and 0 in the others: the lower half whole or the upper one
// empty. The processor would wait for lanes that were gathered in memory first.
template <typename D>
HWY_INLINE hn::Vec<D> loadByHalves(D d, const float* from, std::size_t count) {
  if constexpr (hn::MaxLanes(d) == 1) {
    return count == 0 ? hn::Zero(d) : hn::LoadU(d, from);
  } else {
    const hn::Half<D> half;
    constexpr std::size_t kHalf = hn::MaxLanes(half);
    if (count < kHalf) return hn::ZeroExtendVector(d, loadByHalves(half, from, count));
    const auto lower = hn::LoadU(half, from);
    if (count == kHalf) return hn::ZeroExtendVector(d, lower);
    return hn::Combine(d, loadByHalves(half, from + kHalf, count - kHalf), lower);
  }
}

// Writes the first `count` lanes likewise.
template <typename D>
HWY_INLINE void storeByHalves(D d, hn::Vec<D> v, float* to, std::size_t count) {
  if constexpr (hn::MaxLanes(d) == 1) {
    if (count != 0) hn::StoreU(v, d, to);
  } else {
    const hn::Half<D> half;
    constexpr std::size_t kHalf = hn::MaxLanes(half);
    const auto lower = hn::LowerHalf(half, v);
    if (count < kHalf) return storeByHalves(half, lower, to, count);
    hn::StoreU(lower, half, to);
    if (count != kHalf) storeByHalves(half, hn::UpperHalf(half, v), to + kHalf, count - kHalf);
  }
}

#endif

// The first lanes of vectors that are not full in memory.
class FirstLanes {
 public:
  using Mask = hn::Mask<Tag>;

  // REQUIRES: 0 < count <= kLanes.
  explicit HWY_INLINE FirstLanes(std::size_t count)
      : mask_(hn::FirstN(Tag(), count)), count_(count) {}

  HWY_INLINE Mask mask() const { return mask_; }

  // Gives 0 in the other lanes, and reads nothing behind these.
  HWY_INLINE Vec load(const float* from) const {
    if constexpr (kLoadsParts) return hn::MaskedLoad(mask_, Tag(), from);
    if constexpr (kSpendsCode) return loadByHalves(Tag(), from, count_);
    float lanes[kLanes] = {};
    std::memcpy(lanes, from, count_ * sizeof(float));
    return hn::LoadU(Tag(), lanes);
  }

  // Writes nothing behind these lanes.
  HWY_INLINE void store(Vec v, float* to) const {
    if constexpr (kLoadsParts) return hn::BlendedStore(v, mask_, Tag(), to);
    if constexpr (kSpendsCode) return storeByHalves(Tag(), v, to, count_);
    float lanes[kLanes];
    hn::StoreU(v, Tag(), lanes);
    std::memcpy(to, lanes, count_ * sizeof(float));
  }

 private:
  Mask mask_;
  std::size_t count_;
};

// Loads vector `r` of R; the last one has only some lanes where kPartial is set.
template <bool kPartial, int R>
HWY_INLINE Vec loadRow(const float* column, int r, const FirstLanes& last) {
  const float* from = column + static_cast<std::size_t>(r) * kLanes;
  if (kPartial && r == R - 1) return last.load(from);
  return hn::LoadU(Tag(), from);
}

template <bool kPartial, int R>
HWY_INLINE void storeRow(Vec v, float* column, int r, const FirstLanes& last) {
  float* to = column + static_cast<std::size_t>(r) * kLanes;
  if (kPartial && r == R - 1) return last.store(v, to);
  hn::StoreU(v, Tag(), to);
}

// The operations of ActivationFormulas on vectors.
struct VectorOps {
  using Value = Vec;
  static constexpr bool kScales = HWY_TARGET == HWY_AVX3;

  static HWY_INLINE Vec constant(float value) { return hn::Set(Tag(), value); }
  static HWY_INLINE Vec fma(Vec a, Vec b, Vec c) { return hn::MulAdd(a, b, c); }
  static HWY_INLINE Vec add(Vec a, Vec b) { return hn::Add(a, b); }
  static HWY_INLINE Vec sub(Vec a, Vec b) { return hn::Sub(a, b); }
  static HWY_INLINE Vec mul(Vec a, Vec b) { return hn::Mul(a, b); }
  static HWY_INLINE Vec div(Vec a, Vec b) { return hn::Div(a, b); }
  static HWY_INLINE Vec abs(Vec a) { return hn::Abs(a); }
  static HWY_INLINE Vec copySign(Vec magnitude, Vec sign) { return hn::CopySign(magnitude, sign); }
  static HWY_INLINE Vec lessThan(Vec a, Vec b, Vec ifTrue, Vec ifFalse) {
    return hn::IfThenElse(hn::Lt(a, b), ifTrue, ifFalse);
  }

  // The x86 instruction gives its second operand where either is NaN.
  static HWY_INLINE Vec atLeast(Vec limit, Vec a) {
#if HWY_ARCH_X86 && HWY_TARGET != HWY_SCALAR && HWY_TARGET != HWY_EMU128
    return hn::Max(limit, a);
#else
    return lessThan(a, limit, limit, a);
#endif
  }

#if HWY_TARGET == HWY_AVX3
  static HWY_INLINE Vec scaled(Vec a, Vec n) { return Vec{_mm512_scalef_ps(a.raw, n.raw)}; }
#endif

  // A value that is not a number has no power; what it gives is multiplied by it anyway. Without
  // vector instructions it must not be converted.
  static HWY_INLINE Vec powerOfTwo(Vec n) {
#if HWY_TARGET == HWY_SCALAR || HWY_TARGET == HWY_EMU128
    n = hn::IfThenElse(hn::Eq(n, n), n, hn::Zero(Tag()));
#endif
    const auto exponent = hn::Add(hn::ConvertTo(IntTag(), n), hn::Set(IntTag(), 127));
    return hn::BitCast(Tag(), hn::ShiftLeft<23>(exponent));
  }
};

}  // namespace HWY_NAMESPACE
}  // namespace mlnn
HWY_AFTER_NAMESPACE();

#endif  // per-target include guard
