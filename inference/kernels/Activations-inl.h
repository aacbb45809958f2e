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

// Sums that become results.
struct Sums {
  const float* scale;  // of each row, or null for 1
  const float* shift;  // of each row
  std::size_t rows;
  float* y;             // of the first frame
  std::size_t yStride;  // from one frame to the next
  std::size_t frames;
};

// The sums of R whole vectors of rows from row `i` on; what belongs to the rows is loaded once.
template <typename Function, int R>
HWY_INLINE void finishRows(const Sums& sums, std::size_t i) {
  const Tag d;
  Vec factor[R];
  Vec shift[R];
  HWY_UNROLL(4)
  for (int r = 0; r < R; ++r) {
    const std::size_t row = i + static_cast<std::size_t>(r) * kLanes;
    factor[r] = sums.scale == nullptr ? hn::Set(d, 1.0f) : hn::LoadU(d, sums.scale + row);
    shift[r] = hn::LoadU(d, sums.shift + row);
  }
  float* y = sums.y + i;
  for (std::size_t f = 0; f < sums.frames; ++f, y += sums.yStride) {
    HWY_UNROLL(4)
    for (int r = 0; r < R; ++r) {
      float* const at = y + static_cast<std::size_t>(r) * kLanes;
      hn::StoreU(Function::apply(hn::MulAdd(factor[r], hn::LoadU(d, at), shift[r])), d, at);
    }
  }
}

// y = fn(y + shift), or fn(scale * y + shift) with one rounding before fn.
template <typename Function>
void finishSums(const Sums& sums) {
  const Tag d;
  const Vec one = hn::Set(d, 1.0f);
  std::size_t i = 0;
  if constexpr (kLanes > 1 && kLanes < 16 && kSpendsCode) {  // two vectors where they are small
    for (; i + 2 * kLanes <= sums.rows; i += 2 * kLanes) finishRows<Function, 2>(sums, i);
  }
  for (; i + kLanes <= sums.rows; i += kLanes) finishRows<Function, 1>(sums, i);
  if (kLanes == 1 || i == sums.rows) return;
  const FirstLanes rest(sums.rows - i);
  const Vec factor = sums.scale == nullptr ? one : rest.load(sums.scale + i);
  const Vec shift = rest.load(sums.shift + i);
  float* y = sums.y + i;
  for (std::size_t f = 0; f < sums.frames; ++f, y += sums.yStride) {
    rest.store(Function::apply(hn::MulAdd(factor, rest.load(y), shift)), y);
  }
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
  void (*finish)(const Sums& sums);
  void (*activate)(float* values, std::size_t count);
};

// The same as finishSums, in less code.
template <typename Function>
void finishInTwoLoops(const Sums& sums) {
  finishSums<FormulaOf<Formulas, ActFn::linear>>(sums);
  for (std::size_t f = 0; f < sums.frames; ++f) {
    activateColumn<Function>(sums.y + f * sums.yStride, sums.rows);
  }
}

template <typename Function>
constexpr ActivationLoops loopsOf() {
  if constexpr (kBuiltForSize) {
    return {finishInTwoLoops<Function>, activateColumn<Function>};
  } else {
    return {finishSums<Function>, activateColumn<Function>};
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
  const float* scale = layer.scale == nullptr ? nullptr : layer.scale + first;
  loopsFor(layer.actFn).finish({scale, layer.shift + first, count, y, yStride, frames});
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
