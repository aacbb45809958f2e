// The softmax over arrays, for any way to compute exp. Compiled once for every instruction set.
#if defined(MLNN_SOFTMAX_INL_H) == defined(HWY_TARGET_TOGGLE)
#ifdef MLNN_SOFTMAX_INL_H
#undef MLNN_SOFTMAX_INL_H
#else
#define MLNN_SOFTMAX_INL_H
#endif

#include "inference/kernels/VectorOps-inl.h"

HWY_BEFORE_NAMESPACE();
namespace mlnn {
namespace HWY_NAMESPACE {

// The largest value. Where there are NaN, any of the values.
HWY_INLINE Vec largestOf(const float* values, std::size_t count) {
  const Tag d;
  Vec largest = hn::Set(d, values[0]);
  std::size_t i = 0;
  for (; i + kLanes <= count; i += kLanes) largest = hn::Max(largest, hn::LoadU(d, values + i));
  if (i < count) {
    const FirstLanes rest(count - i);
    largest = hn::Max(largest, hn::IfThenElse(rest.mask(), rest.load(values + i), largest));
  }
  return hn::MaxOfLanes(d, largest);
}

// The upper lanes are added to the lower ones, until one is left.
template <typename D>
HWY_INLINE float sumByHalves([[maybe_unused]] D d, hn::Vec<D> v) {
#if HWY_TARGET != HWY_SCALAR  // one lane
  if constexpr (hn::MaxLanes(d) > 1) {
    const hn::Half<D> half;
    return sumByHalves(half, hn::Add(hn::LowerHalf(half, v), hn::UpperHalf(half, v)));
  }
#endif
  return hn::GetLane(v);
}

// Every 16th value goes into one chain, and the chains are added by halves, whatever the number
// of lanes.
class SoftmaxSum {
 public:
  HWY_INLINE SoftmaxSum() {
    for (Vec& chain : chains_) chain = hn::Zero(Tag());
  }

  // REQUIRES: as many calls for each vector of the 16 chains, or one less for the last ones.
  HWY_INLINE void add(std::size_t vector, Vec values) {
    chains_[vector] = hn::Add(chains_[vector], values);
  }

  HWY_INLINE float total() {
    for (std::size_t half = kVectors / 2; half > 0; half /= 2) {
      for (std::size_t j = 0; j < half; ++j) chains_[j] = hn::Add(chains_[j], chains_[j + half]);
    }
    return sumByHalves(Tag(), chains_[0]);
  }

  static constexpr std::size_t kChains = 16;
  static constexpr std::size_t kVectors = kChains / kLanes;

 private:
  Vec chains_[kVectors];
};

// Replaces the values by exp(x - largest), with Exp for exp. Returns their sum.
template <typename Exp>
HWY_INLINE float expOfDifferences(float* values, std::size_t count, Vec largest) {
  const Tag d;
  const auto exp = [&](Vec x) { return Exp::apply(hn::Sub(x, largest)); };
  SoftmaxSum sum;
  std::size_t i = 0;
  for (; i + SoftmaxSum::kChains <= count; i += SoftmaxSum::kChains) {
    for (std::size_t v = 0; v < SoftmaxSum::kVectors; ++v) {
      const Vec e = exp(hn::LoadU(d, values + i + v * kLanes));
      hn::StoreU(e, d, values + i + v * kLanes);
      sum.add(v, e);
    }
  }
  for (std::size_t v = 0; i < count; ++v, i += kLanes) {
    const FirstLanes rest(count - i < kLanes ? count - i : kLanes);
    const Vec e = exp(rest.load(values + i));
    rest.store(e, values + i);
    sum.add(v, hn::IfThenElseZero(rest.mask(), e));
  }
  return sum.total();
}

HWY_INLINE void divideBy(float* values, std::size_t count, float divisor) {
  const Tag d;
  const Vec by = hn::Set(d, divisor);
  std::size_t i = 0;
  for (; i + kLanes <= count; i += kLanes) {
    hn::StoreU(hn::Div(hn::LoadU(d, values + i), by), d, values + i);
  }
  if (i == count) return;
  const FirstLanes rest(count - i);
  rest.store(hn::Div(rest.load(values + i), by), values + i);
}

// The same for values that fit V vectors, of which the last one may not be full, without a way
// through the memory.
template <typename Exp, std::size_t V>
HWY_INLINE void softmaxInRegisters(float* values, std::size_t count) {
  const Tag d;
  constexpr std::size_t kLast = V - 1;
  const FirstLanes lanes(count - kLast * kLanes);
  float* const last = values + kLast * kLanes;
  Vec x[V];
  x[kLast] = lanes.load(last);
  Vec largest = hn::IfThenElse(lanes.mask(), x[kLast], hn::Set(d, values[0]));
  for (std::size_t v = 0; v < kLast; ++v) {
    x[v] = hn::LoadU(d, values + v * kLanes);
    largest = hn::Max(largest, x[v]);
  }
  largest = hn::MaxOfLanes(d, largest);
  for (Vec& each : x) each = Exp::apply(hn::Sub(each, largest));
  x[kLast] = hn::IfThenElseZero(lanes.mask(), x[kLast]);
  SoftmaxSum sum;
  for (std::size_t v = 0; v < V; ++v) sum.add(v % SoftmaxSum::kVectors, x[v]);
  const Vec total = hn::Set(d, sum.total());
  for (std::size_t v = 0; v < kLast; ++v) hn::StoreU(hn::Div(x[v], total), d, values + v * kLanes);
  lanes.store(hn::Div(x[kLast], total), last);
}

template <typename Exp>
HWY_INLINE void softmaxBy(float* values, std::size_t count) {
  if (count == 0) return;
  if constexpr (kLanes > 1 && kSpendsCode) {
    if (count <= kLanes) return softmaxInRegisters<Exp, 1>(values, count);
    if (count <= 2 * kLanes) return softmaxInRegisters<Exp, 2>(values, count);
  }
  const float sum = expOfDifferences<Exp>(values, count, largestOf(values, count));
  divideBy(values, count, sum);
}

}  // namespace HWY_NAMESPACE
}  // namespace mlnn
HWY_AFTER_NAMESPACE();

#endif  // per-target include guard
