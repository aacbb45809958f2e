// The activations and the softmax over arrays. Compiled once for every instruction set.
#if defined(MLNN_ACTIVATIONS_INL_H) == defined(HWY_TARGET_TOGGLE)
#ifdef MLNN_ACTIVATIONS_INL_H
#undef MLNN_ACTIVATIONS_INL_H
#else
#define MLNN_ACTIVATIONS_INL_H
#endif

#include <array>
#include <cstddef>
#include <utility>

#include "inference/kernels/ActivationFormulas-inl.h"
#include "inference/kernels/LayerView.h"
#include "inference/kernels/Softmax-inl.h"
#include "inference/kernels/VectorOps-inl.h"
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

using Formulas = ActivationFormulas<VectorOps>;

// The loops for each activation, in the order of the codes.
struct ActivationLoops {
  void (*finish)(const float* scale, const float* shift, std::size_t count, float* y);
  void (*activate)(float* values, std::size_t count);
};

// The same as finishColumn, in less code.
template <typename Function>
void finishInTwoLoops(const float* scale, const float* shift, std::size_t count, float* y) {
  finishColumn<FormulaOf<Formulas, ActFn::linear>>(scale, shift, count, y);
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

template <std::size_t... codes>
constexpr std::array<ActivationLoops, ActFn::kCount> allLoops(std::index_sequence<codes...>) {
  return {loopsOf<FormulaOf<Formulas, static_cast<ActFn::ActFn>(codes)>>()...};
}

HWY_INLINE const ActivationLoops& loopsFor(ActFn::ActFn fn) {
  static constexpr auto kLoops = allLoops(std::make_index_sequence<ActFn::kCount>());
  return kLoops[static_cast<std::size_t>(fn)];
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

void softmax(float* values, std::size_t count) {
  softmaxBy<ExpOfNegativeBy<Formulas>>(values, count);
}

}  // namespace HWY_NAMESPACE
}  // namespace mlnn
HWY_AFTER_NAMESPACE();

#endif  // per-target include guard
