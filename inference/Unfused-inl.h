// The kernels of UnfusedKernels.h. Compiled once for every instruction set.
#if defined(MLNN_UNFUSED_INL_H) == defined(HWY_TARGET_TOGGLE)
#ifdef MLNN_UNFUSED_INL_H
#undef MLNN_UNFUSED_INL_H
#else
#define MLNN_UNFUSED_INL_H
#endif

#include <cstring>

#include "inference/ActivationFormulas-inl.h"
#include "inference/Softmax-inl.h"
#include "inference/UnfusedKernels.h"
#include "inference/VectorOps-inl.h"
#include "layers/BuiltForSize.h"

HWY_BEFORE_NAMESPACE();
namespace mlnn {
namespace HWY_NAMESPACE {

using IntVec = hn::Vec<IntTag>;
using ByteTag = hn::Rebind<int8_t, Tag>;

struct UnfusedOps : VectorOps {
  static HWY_INLINE Vec fma(Vec a, Vec b, Vec c) { return hn::Add(hn::Mul(a, b), c); }
};

// Any NaN becomes the one that all processors can make.
HWY_INLINE Vec withOneNaN(Vec v) {
  const Vec nan = hn::BitCast(Tag(), hn::Set(IntTag(), 0x7fc00000));
  return hn::IfThenElse(hn::Eq(v, v), v, nan);
}

#define MLNN_UNFUSED(Name, function)                                                           \
  struct Name {                                                                                \
    static HWY_INLINE Vec apply(Vec x) { return ActivationFormulas<UnfusedOps>::function(x); } \
  };
MLNN_UNFUSED(UnfusedLinear, linear)
MLNN_UNFUSED(UnfusedSigmoid, sigmoid)
MLNN_UNFUSED(UnfusedTanh, tanh)
MLNN_UNFUSED(UnfusedRelu, relu)
MLNN_UNFUSED(UnfusedLeakyRelu, leakyRelu)
MLNN_UNFUSED(UnfusedElu, elu)
MLNN_UNFUSED(UnfusedSoftplus, softplus)
MLNN_UNFUSED(UnfusedSilu, silu)
MLNN_UNFUSED(UnfusedExp, expOfNegative)
#undef MLNN_UNFUSED

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
  if (i < count) {
    const Vec rest = FirstLanes(count - i).load(x + i);
    largest = hn::Max(largest, hn::And(hn::BitCast(d, rest), mask));
  }
  return hn::GetLane(hn::MaxOfLanes(d, largest));
}

// How a frame's inputs become integers.
struct InputScales {
  float toInteger;  // 0 where all integers are
  float toFloat;
};

HWY_INLINE InputScales inputScales(const float* x, std::size_t count, int largestInteger) {
  constexpr int32_t kInfinityBits = 0x7f800000;
  constexpr int32_t kNaNBits = 0x7fc00000;
  const int32_t bits = largestBits(x, count);
  const int32_t usedBits = bits >= kInfinityBits ? kNaNBits : bits;
  float largest;
  std::memcpy(&largest, &usedBits, sizeof largest);
  if (bits >= kInfinityBits) return {0.0f, largest};
  if (largest < kSmallestInput) return {0.0f, 0.0f};
  const auto most = static_cast<float>(largestInteger);
  return {most / largest, largest / most};
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
  if (count == kLanes) return hn::StoreU(bytes, ByteTag(), to);
  HWY_ALIGN int8_t lanes[hn::MaxLanes(ByteTag())];
  hn::StoreU(bytes, ByteTag(), lanes);
  std::memcpy(to, lanes, count);
}

// Calls store(integers, first, count) for all vectors of inputs.
template <typename Store>
HWY_INLINE void forIntegers(const float* x, std::size_t count, float scale, const Store& store) {
  const Vec factor = hn::Set(Tag(), scale);
  std::size_t i = 0;
  for (; i + kLanes <= count; i += kLanes) {
    store(nearestIntegers(hn::Mul(hn::LoadU(Tag(), x + i), factor)), i, kLanes);
  }
  if (i == count) return;
  const Vec rest = FirstLanes(count - i).load(x + i);
  store(nearestIntegers(hn::Mul(rest, factor)), i, count - i);
}

float toBytes(const float* x, std::size_t count, int8_t* bytes, int32_t* sum) {
  const InputScales scales = inputScales(x, count, kLargestInput);
  *sum = 0;
  if (scales.toInteger == 0) {
    std::memset(bytes, 0, count);
    return scales.toFloat;
  }
  IntVec sums = hn::Zero(IntTag());
  const auto store = [&](IntVec integers, std::size_t first, std::size_t lanes) HWY_ATTR {
    sums = hn::Add(sums, integers);
    storeBytes(integers, lanes, bytes + first);
  };
  forIntegers(x, count, scales.toInteger, store);
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
  IntVec highSums = hn::Zero(d);
  IntVec lowSums = hn::Zero(d);
  const auto store = [&](IntVec integers, std::size_t first, std::size_t lanes) HWY_ATTR {
    const IntVec highs = hn::ShiftRight<8>(hn::Add(integers, hn::Set(d, 128)));
    const IntVec lows = hn::Sub(integers, hn::ShiftLeft<8>(highs));
    highSums = hn::Add(highSums, highs);
    lowSums = hn::Add(lowSums, lows);
    storeBytes(highs, lanes, high + first);
    storeBytes(lows, lanes, low + first);
  };
  forIntegers(x, count, scales.toInteger, store);
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
    return withOneNaN(Function::apply(hn::Add(v, hn::LoadU(Tag(), shift + i))));
  }
  HWY_INLINE Vec part(Vec v, std::size_t i, const FirstLanes& lanes) const {
    if (scale != nullptr) v = hn::Mul(v, lanes.load(scale + i));
    return withOneNaN(Function::apply(hn::Add(v, lanes.load(shift + i))));
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
    column += layer.rows;
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
  void (*finish)(const LayerView&, const LayerSums&, float*, std::size_t);
  void (*activate)(float*, std::size_t);
};

template <typename Function>
void unfusedColumn(float* values, std::size_t count) {
  const Tag d;
  std::size_t i = 0;
  for (; i + kLanes <= count; i += kLanes) {
    hn::StoreU(withOneNaN(Function::apply(hn::LoadU(d, values + i))), d, values + i);
  }
  if (kLanes == 1 || i == count) return;
  const FirstLanes rest(count - i);
  rest.store(withOneNaN(Function::apply(rest.load(values + i))), values + i);
}

template <typename Function>
constexpr UnfusedLoops unfusedLoopsOf() {
  return {finishSums<Function>, unfusedColumn<Function>};
}

HWY_INLINE const UnfusedLoops& unfusedLoopsFor(ActFn::ActFn fn) {
  static constexpr UnfusedLoops kLoops[ActFn::kCount] = {
      unfusedLoopsOf<UnfusedLinear>(),    unfusedLoopsOf<UnfusedSigmoid>(),
      unfusedLoopsOf<UnfusedTanh>(),      unfusedLoopsOf<UnfusedRelu>(),
      unfusedLoopsOf<UnfusedLeakyRelu>(), unfusedLoopsOf<UnfusedElu>(),
      unfusedLoopsOf<UnfusedSoftplus>(),  unfusedLoopsOf<UnfusedSilu>()};
  return kLoops[fn];
}

void finish(const LayerView& layer, const LayerSums& sums, float* y, std::size_t yStride) {
  unfusedLoopsFor(layer.actFn).finish(layer, sums, y, yStride);
}

void multiply(const LayerView& layer, const float* x, std::size_t xStride, float* y,
              std::size_t yStride, std::size_t frames) {
  multiplyBy<UnfusedLinear>(layer, x, xStride, y, yStride, frames);
  for (std::size_t f = 0; f < frames && layer.actFn != ActFn::linear; ++f) {
    unfusedLoopsFor(layer.actFn).activate(y + f * yStride, layer.rows);
  }
}

// One NaN among the values makes NaN of all.
void unfusedSoftmax(float* values, std::size_t count) {
  softmaxBy<UnfusedExp>(values, count);
  if (count > 0 && values[0] != values[0]) unfusedColumn<UnfusedLinear>(values, count);
}

}  // namespace HWY_NAMESPACE
}  // namespace mlnn
HWY_AFTER_NAMESPACE();

#endif  // per-target include guard
