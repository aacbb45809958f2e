// The kernels of UnfusedKernels.h. Compiled once for every instruction set.
#if defined(MLNN_UNFUSED_INL_H) == defined(HWY_TARGET_TOGGLE)
#ifdef MLNN_UNFUSED_INL_H
#undef MLNN_UNFUSED_INL_H
#else
#define MLNN_UNFUSED_INL_H
#endif

#include <array>
#include <cstddef>
#include <cstring>
#include <utility>

#include "inference/kernels/ActivationFormulas-inl.h"
#include "inference/kernels/Softmax-inl.h"
#include "inference/kernels/UnfusedKernels.h"
#include "inference/kernels/VectorOps-inl.h"
#include "layers/BuiltForSize.h"

HWY_BEFORE_NAMESPACE();
namespace mlnn {
namespace HWY_NAMESPACE {

using IntVec = hn::Vec<IntTag>;
using ByteTag = hn::Rebind<int8_t, Tag>;

struct UnfusedOps : VectorOps {
  static HWY_INLINE Vec fma(Vec a, Vec b, Vec c) { return hn::Add(hn::Mul(a, b), c); }

  // The limit where a is more, else a, NaN too: as atLeast.
  static HWY_INLINE Vec atMost(Vec limit, Vec a) {
#if HWY_ARCH_X86 && HWY_TARGET != HWY_SCALAR && HWY_TARGET != HWY_EMU128
    return hn::Min(limit, a);
#else
    return lessThan(limit, a, limit, a);
#endif
  }
};

// The activations of the integer pass, of which the sigmoid is its own.
template <typename Ops>
struct UnfusedFormulas : ActivationFormulas<Ops> {
  using Value = typename Ops::Value;

  static HWY_INLINE Value c(float value) { return Ops::constant(value); }

  // 1 / (1 + 2^t) with t = -x / ln 2: short, since its result is rounded to 8 bits most of the
  // time. Within 2^-22 of the true value. NaN stays NaN.
  static HWY_INLINE Value sigmoid(Value x) {
    constexpr float kLargest = 125.0f;  // 2^t and its inverse are normal
    constexpr float kShift = ActivationFormulas<Ops>::kRoundingShift;
    Value t = Ops::mul(x, c(-ActivationFormulas<Ops>::kLog2E));
    t = Ops::atMost(c(kLargest), Ops::atLeast(c(-kLargest), t));
    const Value n = Ops::sub(Ops::add(t, c(kShift)), c(kShift));
    const Value mantissa = powerOfTwo(Ops::sub(t, n));
    return Ops::div(c(1.0f), Ops::add(timesPower(mantissa, n), c(1.0f)));
  }

 private:
  // 2^r for |r| <= 1/2, with the smallest largest relative error of its degree, 10^-7.
  static HWY_INLINE Value powerOfTwo(Value r) {
    Value p = c(1.326472033e-03f);
    p = Ops::fma(p, r, c(9.671512991e-03f));
    p = Ops::fma(p, r, c(5.550733581e-02f));
    p = Ops::fma(p, r, c(2.402224243e-01f));
    p = Ops::fma(p, r, c(6.931470037e-01f));
    return Ops::fma(p, r, c(1.0f));
  }

  static HWY_INLINE Value timesPower(Value a, Value n) {
    if constexpr (Ops::kScales) {
      return Ops::scaled(a, n);
    } else {
      return Ops::mul(a, Ops::powerOfTwo(n));
    }
  }
};

using UnfusedVectorFormulas = UnfusedFormulas<UnfusedOps>;
using UnfusedLinear = FormulaOf<UnfusedVectorFormulas, ActFn::linear>;

// --- Inputs to integers ---

// The largest absolute value, as its bits: those of floats have the order of the floats, and NaN
// is larger than all of them.
HWY_INLINE int32_t largestBits(const float* x, std::size_t count) {
  const IntTag d;
  const IntVec mask = hn::Set(d, 0x7fffffff);
  IntVec largest = hn::Zero(d);
  std::size_t i = 0;
  for (; i + kLanes <= count; i += kLanes) {
    largest = hn::Max(largest, hn::And(hn::BitCast(d, hn::LoadU(Tag(), x + i)), mask));
  }
  if (kLanes > 1 && i < count) {
    const Vec rest = FirstLanes(count - i).load(x + i);
    largest = hn::Max(largest, hn::And(hn::BitCast(d, rest), mask));
  }
  return hn::GetLane(hn::MaxOfLanes(d, largest));
}

HWY_INLINE InputScales inputScales(const float* x, std::size_t count, int largestInteger) {
  return inputScalesFor(largestBits(x, count), largestInteger);
}

// Rounds to the nearest integer, halves to the even one: 1.5 * 2^23 leaves no other bits.
HWY_INLINE IntVec nearestIntegers(Vec x) {
  constexpr float kShift = 12582912.0f;
  const Vec shifted = hn::Add(x, hn::Set(Tag(), kShift));
  return hn::Sub(hn::BitCast(IntTag(), shifted), hn::BitCast(IntTag(), hn::Set(Tag(), kShift)));
}

// Writes the bytes of some lanes, which are no more than a vector has.
HWY_INLINE void storeBytes(IntVec integers, std::size_t count, int8_t* to) {
  const auto bytes = hn::DemoteTo(ByteTag(), integers);
  if (kLanes == 1 || count == kLanes) return hn::StoreU(bytes, ByteTag(), to);
  HWY_ALIGN int8_t lanes[hn::MaxLanes(ByteTag())];
  hn::StoreU(bytes, ByteTag(), lanes);
  std::memcpy(to, lanes, count);
}

// Writes the bytes of four vectors.
HWY_INLINE void storeFour(IntVec a, IntVec b, IntVec c, IntVec d, int8_t* to) {
#if HWY_TARGET == HWY_AVX3
  const __m512i places = _mm512_setr_epi32(0, 4, 8, 12, 1, 5, 9, 13, 2, 6, 10, 14, 3, 7, 11, 15);
  const __m512i low = _mm512_packs_epi32(a.raw, b.raw);
  const __m512i high = _mm512_packs_epi32(c.raw, d.raw);
  const __m512i mixed = _mm512_packs_epi16(low, high);
  _mm512_storeu_si512(to, _mm512_maskz_permutexvar_epi32(0xffff, places, mixed));
#elif HWY_TARGET == HWY_AVX2
  const __m256i places = _mm256_setr_epi32(0, 4, 1, 5, 2, 6, 3, 7);
  const __m256i low = _mm256_packs_epi32(a.raw, b.raw);
  const __m256i high = _mm256_packs_epi32(c.raw, d.raw);
  const __m256i mixed = _mm256_packs_epi16(low, high);
  _mm256_storeu_si256(reinterpret_cast<__m256i*>(to), _mm256_permutevar8x32_epi32(mixed, places));
#else
  storeBytes(a, kLanes, to);
  storeBytes(b, kLanes, to + kLanes);
  storeBytes(c, kLanes, to + 2 * kLanes);
  storeBytes(d, kLanes, to + 3 * kLanes);
#endif
}

float toBytes(const float* x, std::size_t count, int8_t* bytes, int32_t* sum) {
  const InputScales scales = inputScales(x, count, kLargestInput);
  *sum = 0;
  if (scales.toInteger == 0) {
    std::memset(bytes, 0, count);
    return scales.toFloat;
  }
  const Vec factor = hn::Set(Tag(), scales.toInteger);
  IntVec sums = hn::Zero(IntTag());
  std::size_t i = 0;
  for (; i + 4 * kLanes <= count; i += 4 * kLanes) {
    const IntVec a = nearestIntegers(hn::Mul(hn::LoadU(Tag(), x + i), factor));
    const IntVec b = nearestIntegers(hn::Mul(hn::LoadU(Tag(), x + i + kLanes), factor));
    const IntVec c = nearestIntegers(hn::Mul(hn::LoadU(Tag(), x + i + 2 * kLanes), factor));
    const IntVec d = nearestIntegers(hn::Mul(hn::LoadU(Tag(), x + i + 3 * kLanes), factor));
    sums = hn::Add(sums, hn::Add(hn::Add(a, b), hn::Add(c, d)));
    storeFour(a, b, c, d, bytes + i);
  }
  while (i < count) {
    const std::size_t lanes = count - i < kLanes ? count - i : kLanes;
    const IntVec a = nearestIntegers(hn::Mul(FirstLanes(lanes).load(x + i), factor));
    sums = hn::Add(sums, a);
    storeBytes(a, lanes, bytes + i);
    i += lanes;
  }
  *sum = hn::GetLane(hn::SumOfLanes(IntTag(), sums));
  return scales.toFloat;
}

float toWords(const float* x, std::size_t count, int8_t* high, int8_t* low, int32_t* sums) {
  const InputScales scales = inputScales(x, count, kLargestWideInput);
  sums[0] = sums[1] = 0;
  if (scales.toInteger == 0) {
    std::memset(high, 0, count);
    std::memset(low, 0, count);
    return scales.toFloat;
  }
  const IntTag d;
  const Vec factor = hn::Set(Tag(), scales.toInteger);
  IntVec highSums = hn::Zero(d);
  IntVec lowSums = hn::Zero(d);
  for (std::size_t i = 0; i < count;) {
    const std::size_t lanes = count - i < kLanes ? count - i : kLanes;
    const IntVec integers = nearestIntegers(hn::Mul(FirstLanes(lanes).load(x + i), factor));
    const IntVec highs = hn::ShiftRight<8>(hn::Add(integers, hn::Set(d, 128)));
    const IntVec lows = hn::Sub(integers, hn::ShiftLeft<8>(highs));
    highSums = hn::Add(highSums, highs);
    lowSums = hn::Add(lowSums, lows);
    storeBytes(highs, lanes, high + i);
    storeBytes(lows, lanes, low + i);
    i += lanes;
  }
  sums[0] = hn::GetLane(hn::SumOfLanes(d, highSums));
  sums[1] = hn::GetLane(hn::SumOfLanes(d, lowSums));
  return scales.toFloat;
}

// --- Sums to results ---

// Scale and shift of a layer's outputs, then its activation.
template <typename Function>
struct Finish {
  const float* scale;  // or null
  const float* shift;

  HWY_INLINE Vec whole(Vec v, std::size_t i) const {
    if (scale != nullptr) v = hn::Mul(v, hn::LoadU(Tag(), scale + i));
    return Function::apply(hn::Add(v, hn::LoadU(Tag(), shift + i)));
  }
  HWY_INLINE Vec part(Vec v, std::size_t i, const FirstLanes& lanes) const {
    if (scale != nullptr) v = hn::Mul(v, lanes.load(scale + i));
    return Function::apply(hn::Add(v, lanes.load(shift + i)));
  }
};

// Some sums of a frame as floats. The high bytes' ones may be missing.
HWY_INLINE Vec floatSums(const int32_t* high, const int32_t* low) {
  const Vec v = hn::ConvertTo(Tag(), hn::LoadU(IntTag(), low));
  if (high == nullptr) return v;
  const Vec upper = hn::ConvertTo(Tag(), hn::LoadU(IntTag(), high));
  return hn::Add(hn::Mul(upper, hn::Set(Tag(), 256.0f)), v);
}

// There are sums for whole panels, so that vectors of them need not be cut.
template <typename Function>
void finishSums(const LayerView& layer, const LayerSums& sums, float* y, std::size_t yStride) {
  const Finish<Function> finish{layer.scale, layer.shift};
  const std::size_t end = sums.firstRow + sums.rows;
  for (std::size_t f = 0; f < sums.frames; ++f) {
    const std::size_t place = sums.areWide ? 2 * f : f;
    const int32_t* high = sums.areWide ? sums.sums + place * sums.stride : nullptr;
    const int32_t* low = sums.sums + (sums.areWide ? place + 1 : place) * sums.stride;
    const Vec inputScale = hn::Set(Tag(), sums.inputScales[f]);
    float* const to = y + f * yStride;
    std::size_t i = sums.firstRow;
    for (; i + kLanes <= end; i += kLanes) {
      const Vec v = hn::Mul(floatSums(high, low), inputScale);
      const Vec sum = hn::Mul(v, hn::LoadU(Tag(), sums.rowScales + i));
      hn::StoreU(finish.whole(sum, i), Tag(), to + i);
      low += kLanes;
      if (high != nullptr) high += kLanes;
    }
    if (kLanes == 1 || i == end) continue;
    const FirstLanes rest(end - i);
    const Vec v = hn::Mul(floatSums(high, low), inputScale);
    const Vec sum = hn::Mul(v, rest.load(sums.rowScales + i));
    rest.store(finish.part(sum, i, rest), to + i);
  }
}

// --- Layers of floats ---

// R vectors of outputs for F frames; the last vector has only some lanes where kPartial is set.
template <bool kPartial, int R, int F, typename Function>
HWY_INLINE void multiplyTile(const LayerView& layer, std::size_t row, const FirstLanes& last,
                             const float* x, std::size_t xStride, float* y, std::size_t yStride) {
  Vec sums[R][F];
  HWY_UNROLL(4)
  for (int r = 0; r < R; ++r) {
    HWY_UNROLL(4)
    for (int f = 0; f < F; ++f) sums[r][f] = hn::Zero(Tag());
  }
  const float* column = layer.weights + row;
  for (std::size_t c = 0; c < layer.cols; ++c) {
    Vec w[R];
    HWY_UNROLL(4)
    for (int r = 0; r < R; ++r) w[r] = loadRow<kPartial, R>(column, r, last);
    HWY_UNROLL(4)
    for (int f = 0; f < F; ++f) {
      const Vec in = hn::Set(Tag(), x[c + static_cast<std::size_t>(f) * xStride]);
      HWY_UNROLL(4)
      for (int r = 0; r < R; ++r) sums[r][f] = hn::Add(hn::Mul(w[r], in), sums[r][f]);
    }
    column += layer.allRows();
  }
  const Finish<Function> finish{layer.scale, layer.shift};
  for (int f = 0; f < F; ++f) {
    float* const to = y + static_cast<std::size_t>(f) * yStride + row;
    for (int r = 0; r < R; ++r) {
      const std::size_t i = row + static_cast<std::size_t>(r) * kLanes;
      const bool isPart = kPartial && r == R - 1;
      const Vec v = isPart ? finish.part(sums[r][f], i, last) : finish.whole(sums[r][f], i);
      storeRow<kPartial, R>(v, to, r, last);
    }
  }
}

template <int F, typename Function>
HWY_INLINE void multiplyFrames(const LayerView& layer, const float* x, std::size_t xStride,
                               float* y, std::size_t yStride) {
  constexpr int kVectors = 4;
  const FirstLanes all(kLanes);
  std::size_t row = 0;
  for (; row + kVectors * kLanes <= layer.rows; row += kVectors * kLanes) {
    multiplyTile<false, kVectors, F, Function>(layer, row, all, x, xStride, y, yStride);
  }
  for (; row + kLanes <= layer.rows; row += kLanes) {
    multiplyTile<false, 1, F, Function>(layer, row, all, x, xStride, y, yStride);
  }
  if (kLanes == 1 || row == layer.rows) return;
  const FirstLanes rest(layer.rows - row);
  multiplyTile<true, 1, F, Function>(layer, row, rest, x, xStride, y, yStride);
}

template <typename Function>
void multiplyBy(const LayerView& layer, const float* x, std::size_t xStride, float* y,
                std::size_t yStride, std::size_t frames) {
  constexpr std::size_t kFrames = kBuiltForSize ? 1 : 2;
  std::size_t f = 0;
  for (; f + kFrames <= frames; f += kFrames) {
    multiplyFrames<kFrames, Function>(layer, x + f * xStride, xStride, y + f * yStride, yStride);
  }
  for (; f < frames; ++f) {
    multiplyFrames<1, Function>(layer, x + f * xStride, xStride, y + f * yStride, yStride);
  }
}

// --- The kernels ---

// The loops for each activation, in the order of the codes.
struct UnfusedLoops {
  // Null where it is built for size: there activations come behind.
  void (*finish)(const LayerView&, const LayerSums&, float*, std::size_t);
  void (*activate)(float*, std::size_t);
};

template <typename Function>
void unfusedColumn(float* values, std::size_t count) {
  const Tag d;
  std::size_t i = 0;
  for (; i + kLanes <= count; i += kLanes) {
    hn::StoreU(Function::apply(hn::LoadU(d, values + i)), d, values + i);
  }
  if (kLanes == 1 || i == count) return;
  const FirstLanes rest(count - i);
  rest.store(Function::apply(rest.load(values + i)), values + i);
}

template <typename Function>
constexpr UnfusedLoops unfusedLoopsOf() {
  return {kBuiltForSize ? nullptr : finishSums<Function>, unfusedColumn<Function>};
}

template <std::size_t... codes>
constexpr std::array<UnfusedLoops, ActFn::kCount> allUnfusedLoops(std::index_sequence<codes...>) {
  return {unfusedLoopsOf<FormulaOf<UnfusedVectorFormulas, static_cast<ActFn::ActFn>(codes)>>()...};
}

HWY_INLINE const UnfusedLoops& unfusedLoopsFor(ActFn::ActFn fn) {
  static constexpr auto kLoops = allUnfusedLoops(std::make_index_sequence<ActFn::kCount>());
  return kLoops[static_cast<std::size_t>(fn)];
}

void finish(const LayerView& layer, const LayerSums& sums, float* y, std::size_t yStride) {
  const UnfusedLoops& loops = unfusedLoopsFor(layer.actFn);
  if (!kBuiltForSize) return loops.finish(layer, sums, y, yStride);
  finishSums<UnfusedLinear>(layer, sums, y, yStride);
  for (std::size_t f = 0; f < sums.frames && layer.actFn != ActFn::linear; ++f) {
    loops.activate(y + f * yStride + sums.firstRow, sums.rows);
  }
}

void multiply(const LayerView& layer, const float* x, std::size_t xStride, float* y,
              std::size_t yStride, std::size_t frames) {
  multiplyBy<UnfusedLinear>(layer, x, xStride, y, yStride, frames);
  for (std::size_t f = 0; f < frames && layer.actFn != ActFn::linear; ++f) {
    unfusedLoopsFor(layer.actFn).activate(y + f * yStride, layer.rows);
  }
}

// Any NaN becomes the one that all processors can make.
struct WithOneNaN {
  static HWY_INLINE Vec apply(Vec v) {
    const Vec nan = hn::BitCast(Tag(), hn::Set(IntTag(), 0x7fc00000));
    return hn::IfThenElse(hn::Eq(v, v), v, nan);
  }
};

void giveOneNaN(float* values, std::size_t count) { unfusedColumn<WithOneNaN>(values, count); }

// One NaN among the values makes NaN of all.
void unfusedSoftmax(float* values, std::size_t count) {
  softmaxBy<ExpOfNegativeBy<UnfusedVectorFormulas>>(values, count);
  if (count > 0 && values[0] != values[0]) giveOneNaN(values, count);
}

}  // namespace HWY_NAMESPACE
}  // namespace mlnn
HWY_AFTER_NAMESPACE();

#endif  // per-target include guard
