// The activations and the softmax over arrays. Compiled once for every instruction set.
#if defined(MLNN_ACTIVATIONS_INL_H) == defined(HWY_TARGET_TOGGLE)
#ifdef MLNN_ACTIVATIONS_INL_H
#undef MLNN_ACTIVATIONS_INL_H
#else
#define MLNN_ACTIVATIONS_INL_H
#endif

#include "inference/ActivationFormulas-inl.h"
#include "inference/LayerView.h"
#include "inference/VectorOps-inl.h"
#include "layers/BuiltForSize.h"

HWY_BEFORE_NAMESPACE();
namespace mlnn {
namespace HWY_NAMESPACE {

// y = fn(y + shift), or fn(scale * y + shift) with one rounding before fn, for `count` values.
template <typename Function>
void finishColumn(const float* scale, const float* shift, std::size_t count, float* y) {
  const Tag d;
  const Vec one = hn::Set(d, 1.0f);
  std::size_t i = 0;
  for (; i + kLanes <= count; i += kLanes) {
    const Vec factor = scale == nullptr ? one : hn::LoadU(d, scale + i);
    const Vec v = hn::MulAdd(factor, hn::LoadU(d, y + i), hn::LoadU(d, shift + i));
    hn::StoreU(Function::apply(v), d, y + i);
  }
  if (kLanes == 1 || i == count) return;
  const FirstLanes rest(count - i);
  const Vec factor = scale == nullptr ? one : rest.load(scale + i);
  const Vec v = hn::MulAdd(factor, rest.load(y + i), rest.load(shift + i));
  rest.store(Function::apply(v), y + i);
}

template <typename Function>
void activateColumn(float* values, std::size_t count) {
  const Tag d;
  std::size_t i = 0;
  for (; i + kLanes <= count; i += kLanes) {
    hn::StoreU(Function::apply(hn::LoadU(d, values + i)), d, values + i);
  }
  if (kLanes == 1 || i == count) return;
  const FirstLanes rest(count - i);
  rest.store(Function::apply(rest.load(values + i)), values + i);
}

// One function of ActivationFormulas as a type, so that it is inlined into the loops.
#define MLNN_ACTIVATION(Name, function)                                                       \
  struct Name {                                                                               \
    static HWY_INLINE Vec apply(Vec x) { return ActivationFormulas<VectorOps>::function(x); } \
  };
MLNN_ACTIVATION(Linear, linear)
MLNN_ACTIVATION(Sigmoid, sigmoid)
MLNN_ACTIVATION(Tanh, tanh)
MLNN_ACTIVATION(Relu, relu)
MLNN_ACTIVATION(LeakyRelu, leakyRelu)
MLNN_ACTIVATION(Elu, elu)
MLNN_ACTIVATION(Softplus, softplus)
MLNN_ACTIVATION(Silu, silu)
MLNN_ACTIVATION(ExpOfNegative, expOfNegative)
#undef MLNN_ACTIVATION

// The loops for each activation, in the order of the codes.
struct ActivationLoops {
  void (*finish)(const float* scale, const float* shift, std::size_t count, float* y);
  void (*activate)(float* values, std::size_t count);
};

// The same as finishColumn, in less code.
template <typename Function>
void finishInTwoLoops(const float* scale, const float* shift, std::size_t count, float* y) {
  finishColumn<Linear>(scale, shift, count, y);
  activateColumn<Function>(y, count);
}

template <typename Function>
constexpr ActivationLoops loopsOf() {
  if constexpr (kBuiltForSize) {
    return {finishInTwoLoops<Function>, activateColumn<Function>};
  } else {
    return {finishColumn<Function>, activateColumn<Function>};
  }
}

HWY_INLINE const ActivationLoops& loopsFor(ActFn::ActFn fn) {
  static constexpr ActivationLoops kLoops[ActFn::kCount] = {
      loopsOf<Linear>(),    loopsOf<Sigmoid>(), loopsOf<Tanh>(),     loopsOf<Relu>(),
      loopsOf<LeakyRelu>(), loopsOf<Elu>(),     loopsOf<Softplus>(), loopsOf<Silu>()};
  return kLoops[fn];
}

// Turns sums into the layer's results: rows `first` to `first + count` of some frames.
HWY_INLINE void finishLayer(const LayerView& layer, std::size_t first, std::size_t count, float* y,
                            std::size_t yStride, std::size_t frames) {
  const ActivationLoops& loops = loopsFor(layer.actFn);
  const float* scale = layer.scale == nullptr ? nullptr : layer.scale + first;
  for (std::size_t f = 0; f < frames; ++f) {
    loops.finish(scale, layer.shift + first, count, y + f * yStride);
  }
}

// A layer without inputs: all sums are 0.
void shiftsOnly(const LayerView& layer, float* y, std::size_t yStride, std::size_t frames) {
  for (std::size_t f = 0; f < frames; ++f)
    std::memset(y + f * yStride, 0, layer.rows * sizeof(float));
  finishLayer(layer, 0, layer.rows, y, yStride, frames);
}

void activate(ActFn::ActFn fn, float* values, std::size_t count) {
  loopsFor(fn).activate(values, count);
}

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

// Replaces the values by exp(x - largest). Returns their sum.
HWY_INLINE float expOfDifferences(float* values, std::size_t count, Vec largest) {
  const Tag d;
  const auto exp = [&](Vec x) { return ExpOfNegative::apply(hn::Sub(x, largest)); };
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

// The same for values that fit one vector, without a way through the memory.
HWY_INLINE void softmaxOfOneVector(float* values, std::size_t count) {
  const FirstLanes lanes(count);
  const Vec x = lanes.load(values);
  const Vec first = hn::Set(Tag(), values[0]);
  const Vec largest = hn::MaxOfLanes(Tag(), hn::IfThenElse(lanes.mask(), x, first));
  const Vec e = hn::IfThenElseZero(lanes.mask(), ExpOfNegative::apply(hn::Sub(x, largest)));
  lanes.store(hn::Div(e, hn::Set(Tag(), sumByHalves(Tag(), e))), values);
}

void softmax(float* values, std::size_t count) {
  if (count == 0) return;
  if (kLanes == SoftmaxSum::kChains && count <= kLanes) return softmaxOfOneVector(values, count);
  const float sum = expOfDifferences(values, count, largestOf(values, count));
  divideBy(values, count, sum);
}

}  // namespace HWY_NAMESPACE
}  // namespace mlnn
HWY_AFTER_NAMESPACE();

#endif  // per-target include guard
