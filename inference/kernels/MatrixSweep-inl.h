// Weights that stream through the caches, times one vector or a few, in the order of additions that
// docs/forward-pass.md fixes: some columns at a time, each read from its start to its end, while
// the sums stay in the nearest caches. Compiled once for every instruction set.
#if defined(MLNN_MATRIX_SWEEP_INL_H) == defined(HWY_TARGET_TOGGLE)
#ifdef MLNN_MATRIX_SWEEP_INL_H
#undef MLNN_MATRIX_SWEEP_INL_H
#else
#define MLNN_MATRIX_SWEEP_INL_H
#endif

#include <algorithm>

#include "inference/kernels/Activations-inl.h"
#include "inference/kernels/KernelChoice.h"
#include "inference/kernels/Kernels.h"
#include "inference/kernels/LayerView.h"
#include "inference/kernels/VectorOps-inl.h"
#include "layers/BuiltForSize.h"
#include "os/Builtins.h"

HWY_BEFORE_NAMESPACE();
namespace mlnn {
namespace HWY_NAMESPACE {

constexpr std::size_t kSweepColumns = 8;  // at a time

// The vectors of rows of a strip: as many as have room in the registers for F frames.
template <int F>
constexpr int stripVectors() {
  constexpr int kSums = kManyRegisters ? 24 : 12;
  return F == 1 ? 8 : std::min(kSums / F, 6);
}

// What a sweep reads and writes.
struct Sweep {
  const float* x;
  std::size_t xStride;  // from one frame to the next
  float* y;
  std::size_t yStride;  // from one frame to the next
  std::size_t frames;
};

// Some columns of a chain.
struct SweptColumns {
  std::size_t first;
  std::size_t count;
  bool starts;   // the chain
  bool ends;     // the chain
  bool isFirst;  // it is the first chain of the sums
};

// Loads vector `r` of R of a column; `end` is behind all weights. Built for size, when small layers
// are swept too, the weights of the next columns may fill up the last vector: no store takes them.
template <bool kPartial, int R>
HWY_INLINE Vec loadWeights(const float* column, int r, const FirstLanes& last,
                           [[maybe_unused]] const float* end) {
  if constexpr (kBuiltForSize && kPartial && !kLoadsParts) {
    const float* const from = column + static_cast<std::size_t>(r) * kLanes;
    if (end - from >= static_cast<std::ptrdiff_t>(kLanes)) return hn::LoadU(Tag(), from);
  }
  return loadRow<kPartial, R>(column, r, last);
}

// Some columns for R vectors of rows from `row` on, and F frames. The chains that these columns do
// not end are kept in `chains`. Fetches the same rows of the columns of the next sweep; behind the
// last one that does nothing.
template <bool kPartial, int R, int F>
HWY_INLINE void sweepStrip(LayerView layer, Sweep sweep, SweptColumns columns, std::size_t row,
                           float* chains, FirstLanes last) {
  const Tag d;
  constexpr std::size_t kChainStride = R * kLanes;
  Vec acc[F][R];
  HWY_UNROLL(8)
  for (int f = 0; f < F; ++f) {
    HWY_UNROLL(8)
    for (int r = 0; r < R; ++r) {
      const float* const chain = chains + static_cast<std::size_t>(f) * kChainStride;
      acc[f][r] = columns.starts ? hn::Zero(d) : loadRow<kPartial, R>(chain, r, last);
    }
  }
  const std::size_t stride = layer.allRows();
  const float* const end = layer.weights + (layer.cols - 1) * stride + layer.rows;
  const float* w = layer.weights + columns.first * stride + row;
  const float* x = sweep.x + columns.first;
  for (std::size_t k = 0; k < columns.count; ++k, w += stride, ++x) {
    Vec wk[R];
    HWY_UNROLL(8)
    for (int r = 0; r < R; ++r) {
      if constexpr (!kBuiltForSize) {
        prefetchOuter(w + static_cast<std::size_t>(r) * kLanes + kSweepColumns * stride);
      }
      wk[r] = loadWeights<kPartial, R>(w, r, last, end);
    }
    HWY_UNROLL(8)
    for (int f = 0; f < F; ++f) {
      const Vec xk = hn::Set(d, x[static_cast<std::size_t>(f) * sweep.xStride]);
      HWY_UNROLL(8)
      for (int r = 0; r < R; ++r) acc[f][r] = hn::MulAdd(wk[r], xk, acc[f][r]);
    }
  }
  HWY_UNROLL(8)
  for (int f = 0; f < F; ++f) {
    float* const y = sweep.y + static_cast<std::size_t>(f) * sweep.yStride + row;
    float* const to = columns.ends ? y : chains + static_cast<std::size_t>(f) * kChainStride;
    HWY_UNROLL(8)
    for (int r = 0; r < R; ++r) {
      if (columns.ends && !columns.isFirst) {
        acc[f][r] = hn::Add(loadRow<kPartial, R>(y, r, last), acc[f][r]);
      }
      storeRow<kPartial, R>(acc[f][r], to, r, last);
    }
  }
}

// Some columns for `count` rows. What comes by value stays in registers: no store changes it.
template <int F>
void sweepColumns(LayerView layer, Sweep sweep, SweptColumns columns, std::size_t row,
                  std::size_t count, float* chains) {
  constexpr int kVectors = stripVectors<F>();
  constexpr std::size_t kRows = kVectors * kLanes;
  const FirstLanes all(kLanes);
  const std::size_t end = row + count;
  for (; row + kRows <= end; row += kRows, chains += kRows * F) {
    sweepStrip<false, kVectors, F>(layer, sweep, columns, row, chains, all);
  }
  for (; row + kLanes <= end; row += kLanes, chains += kLanes * F) {
    sweepStrip<false, 1, F>(layer, sweep, columns, row, chains, all);
  }
  if (kLanes == 1 || row == end) return;
  sweepStrip<true, 1, F>(layer, sweep, columns, row, chains, FirstLanes(end - row));
}

// So many rows at once that their chains have room in the scratch.
template <int F>
void sweepRows(const LayerView& layer, const Sweep& sweep, float* scratch) {
  const std::size_t atOnce = F == 1 ? layer.rows : kPanelFloats / F / kLanes * kLanes;
  const std::size_t length = chainLength(layer.allRows());
  for (std::size_t row = 0; row < layer.rows; row += atOnce) {
    const std::size_t rows = std::min(atOnce, layer.rows - row);
    for (std::size_t at = 0; at < layer.cols; at += length) {
      const std::size_t end = std::min(at + length, layer.cols);
      for (std::size_t k = at; k < end; k += kSweepColumns) {
        const std::size_t count = std::min(kSweepColumns, end - k);
        const SweptColumns columns{k, count, k == at, k + count == end, at == 0};
        sweepColumns<F>(layer, sweep, columns, row, rows, scratch);
      }
    }
  }
}

// The results of a layer, whose weights may stream through. `scratch` has room for a value for each
// row, or for kPanelFloats values where there are several frames.
// REQUIRES: sweptAtOnce(sweep.frames) is sweep.frames.
void sweepLayer(const LayerView& layer, const Sweep& sweep, float* scratch) {
  static constexpr void (*kSweeps[])(const LayerView&, const Sweep&, float*) = {
      sweepRows<sweptAtOnce(1)>, sweepRows<sweptAtOnce(2)>, sweepRows<sweptAtOnce(3)>,
      sweepRows<sweptAtOnce(4)>, sweepRows<sweptAtOnce(5)>, sweepRows<sweptAtOnce(6)>,
      sweepRows<sweptAtOnce(7)>, sweepRows<sweptAtOnce(8)>};
  kSweeps[sweep.frames - 1](layer, sweep, scratch);
  finishLayer(layer, 0, layer.rows, sweep.y, sweep.yStride, sweep.frames);
}

}  // namespace HWY_NAMESPACE
}  // namespace mlnn
HWY_AFTER_NAMESPACE();

#endif  // per-target include guard
