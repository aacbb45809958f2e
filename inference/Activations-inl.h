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
  if (i == count) return;
  const std::size_t rest = count - i;
  const Vec factor = scale == nullptr ? one : loadPart(scale + i, rest);
  const Vec v = hn::MulAdd(factor, loadPart(y + i, rest), loadPart(shift + i, rest));
  storePart(Function::apply(v), y + i, rest);
}

template <typename Function>
void activateColumn(float* values, std::size_t count) {
  const Tag d;
  std::size_t i = 0;
  for (; i + kLanes <= count; i += kLanes) {
    hn::StoreU(Function::apply(hn::LoadU(d, values + i)), d, values + i);
  }
  if (i == count) return;
  storePart(Function::apply(loadPart(values + i, count - i)), values + i, count - i);
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

template <typename Function>
constexpr ActivationLoops loopsOf() {
  return {finishColumn<Function>, activateColumn<Function>};
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

void activate(ActFn::ActFn fn, float* values, std::size_t count) {
  loopsFor(fn).activate(values, count);
}

// The largest value. Where there are NaN, any of the values.
HWY_INLINE float largestOf(const float* values, std::size_t count) {
  const Tag d;
  Vec largest = hn::Set(d, values[0]);
  std::size_t i = 0;
  for (; i + kLanes <= count; i += kLanes) {
    const Vec v = hn::LoadU(d, values + i);
    largest = VectorOps::lessThan(largest, v, v, largest);
  }
  float lanes[kLanes];
  hn::StoreU(largest, d, lanes);
  float result = lanes[0];
  for (const float lane : lanes) result = lane > result ? lane : result;
  for (; i < count; ++i) result = values[i] > result ? values[i] : result;
  return result;
}

// Every 16th value is added up in one chain, and the chains by halves, whatever the number
// of lanes.
HWY_INLINE float sumOf(const float* values, std::size_t count) {
  constexpr std::size_t kChains = 16;
  const Tag d;
  float chains[kChains] = {};
  std::size_t i = 0;
  for (; i + kChains <= count; i += kChains) {
    for (std::size_t j = 0; j < kChains; j += kLanes) {
      hn::StoreU(hn::Add(hn::LoadU(d, chains + j), hn::LoadU(d, values + i + j)), d, chains + j);
    }
  }
  for (std::size_t j = 0; i + j < count; ++j) chains[j] += values[i + j];
  for (std::size_t half = kChains / 2; half > 0; half /= 2) {
    for (std::size_t j = 0; j < half; ++j) chains[j] += chains[j + half];
  }
  return chains[0];
}

HWY_INLINE void expOfDifferences(float* values, std::size_t count, float largest) {
  for (std::size_t i = 0; i < count; ++i) values[i] -= largest;
  activateColumn<ExpOfNegative>(values, count);
}

HWY_INLINE void divideBy(float* values, std::size_t count, float divisor) {
  for (std::size_t i = 0; i < count; ++i) values[i] /= divisor;
}

void softmax(float* values, std::size_t count) {
  if (count == 0) return;
  expOfDifferences(values, count, largestOf(values, count));
  divideBy(values, count, sumOf(values, count));
}

}  // namespace HWY_NAMESPACE
}  // namespace mlnn
HWY_AFTER_NAMESPACE();

#endif  // per-target include guard
