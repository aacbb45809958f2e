// Matrix times vector, in the order of additions that docs/forward-pass.md fixes.
// Compiled once for every instruction set.
#if defined(MLNN_MATRIX_VECTOR_INL_H) == defined(HWY_TARGET_TOGGLE)
#ifdef MLNN_MATRIX_VECTOR_INL_H
#undef MLNN_MATRIX_VECTOR_INL_H
#else
#define MLNN_MATRIX_VECTOR_INL_H
#endif

#include "inference/Activations-inl.h"
#include "inference/GridCodes-inl.h"
#include "inference/LayerView.h"
#include "inference/VectorOps-inl.h"

HWY_BEFORE_NAMESPACE();
namespace mlnn {
namespace HWY_NAMESPACE {

// A row panel is as many vectors of rows, with all inputs walked before the next one.
constexpr int kPanelVectors = kLanes >= 16 ? 16 : 8;

// A sweep takes so many columns at a time, and so many vectors of rows in each of them.
constexpr std::size_t kSweepColumns = 8;
constexpr int kStripVectors = 8;
constexpr std::size_t kStripRows = kStripVectors * kLanes;

// Loads vector `r` of R; the last one has only `lastLanes` lanes where kPartial is set.
template <bool kPartial, int R>
HWY_INLINE Vec loadRow(const float* column, int r, std::size_t lastLanes) {
  const float* from = column + static_cast<std::size_t>(r) * kLanes;
  if (kPartial && r == R - 1) return loadPart(from, lastLanes);
  return hn::LoadU(Tag(), from);
}

template <bool kPartial, int R>
HWY_INLINE void storeRow(Vec v, float* column, int r, std::size_t lastLanes) {
  float* to = column + static_cast<std::size_t>(r) * kLanes;
  if (kPartial && r == R - 1) return storePart(v, to, lastLanes);
  hn::StoreU(v, Tag(), to);
}

// B consecutive chains of R vectors of rows at once; the last chain has `last` inputs, the
// others `length`. Adds the chains to y in their order; the very first is put there.
template <bool kPartial, int R, int B>
HWY_INLINE void panelChains(const float* w, std::size_t stride, const float* x, std::size_t length,
                            std::size_t last, bool isFirst, float* y, std::size_t lastLanes) {
  const Tag d;
  Vec acc[B][R];
  HWY_UNROLL(16)
  for (int b = 0; b < B; ++b) {
    HWY_UNROLL(16)
    for (int r = 0; r < R; ++r) acc[b][r] = hn::Zero(d);
  }
  for (std::size_t k = 0; k < last; ++k) {
    HWY_UNROLL(16)
    for (int b = 0; b < B; ++b) {
      const std::size_t input = static_cast<std::size_t>(b) * length + k;
      const Vec xk = hn::Set(d, x[input]);
      HWY_UNROLL(16)
      for (int r = 0; r < R; ++r) {
        const Vec wk = loadRow<kPartial, R>(w + input * stride, r, lastLanes);
        acc[b][r] = hn::MulAdd(wk, xk, acc[b][r]);
      }
    }
  }
  for (std::size_t k = last; B > 1 && k < length; ++k) {
    HWY_UNROLL(16)
    for (int b = 0; b + 1 < B; ++b) {
      const std::size_t input = static_cast<std::size_t>(b) * length + k;
      const Vec xk = hn::Set(d, x[input]);
      HWY_UNROLL(16)
      for (int r = 0; r < R; ++r) {
        const Vec wk = loadRow<kPartial, R>(w + input * stride, r, lastLanes);
        acc[b][r] = hn::MulAdd(wk, xk, acc[b][r]);
      }
    }
  }
  HWY_UNROLL(16)
  for (int r = 0; r < R; ++r) {
    Vec sum = isFirst ? acc[0][r] : hn::Add(loadRow<kPartial, R>(y, r, lastLanes), acc[0][r]);
    HWY_UNROLL(16)
    for (int b = 1; b < B; ++b) sum = hn::Add(sum, acc[b][r]);
    storeRow<kPartial, R>(sum, y, r, lastLanes);
  }
}

// All inputs for R vectors of rows.
template <bool kPartial, int R>
void rowPanel(const LayerView& layer, const float* w, const float* x, float* y,
              std::size_t lastLanes) {
  constexpr int kAtOnce = R >= 8 ? 1 : R >= 4 ? 2 : R >= 2 ? 4 : 8;
  const std::size_t length = chainLength(layer.rows);
  std::size_t at = 0;
  while (at < layer.cols) {
    const std::size_t left = layer.cols - at;
    const float* from = w + at * layer.rows;
    if (kAtOnce > 1 && left > length * (kAtOnce - 1)) {
      const std::size_t rest = left - length * (kAtOnce - 1);
      panelChains<kPartial, R, kAtOnce>(from, layer.rows, x + at, length,
                                        rest < length ? rest : length, at == 0, y, lastLanes);
      at += length * kAtOnce;
    } else {
      panelChains<kPartial, R, 1>(from, layer.rows, x + at, length, left < length ? left : length,
                                  at == 0, y, lastLanes);
      at += length;
    }
  }
}

// Chooses the instance for `vectors` vectors of rows.
template <int R>
HWY_INLINE void rowPanelOf(int vectors, const LayerView& layer, const float* w, const float* x,
                           float* y, std::size_t lastLanes) {
  if constexpr (R > 1) {
    if (vectors < R) return rowPanelOf<R - 1>(vectors, layer, w, x, y, lastLanes);
  }
  if (lastLanes == kLanes) {
    rowPanel<false, R>(layer, w, x, y, lastLanes);
  } else {
    rowPanel<true, R>(layer, w, x, y, lastLanes);
  }
}

// Weights that stay in the processor's second-level cache: panel by panel.
void multiplyPanels(const LayerView& layer, const float* x, float* y) {
  constexpr std::size_t kPanelRows = kPanelVectors * kLanes;
  for (std::size_t row = 0; row < layer.rows; row += kPanelRows) {
    const std::size_t left = layer.rows - row;
    const std::size_t count = left < kPanelRows ? left : kPanelRows;
    const std::size_t vectors = (count + kLanes - 1) / kLanes;
    rowPanelOf<kPanelVectors>(static_cast<int>(vectors), layer, layer.weights + row, x, y + row,
                              count - (vectors - 1) * kLanes);
  }
}

// Some columns for R vectors of rows: goes on with the chains in `chain`, or starts them.
// Fetches the same rows of the next sweep's columns; behind the last one that does nothing.
template <bool kPartial, int R>
HWY_INLINE void sweepStrip(const float* w, std::size_t stride, const float* x, std::size_t columns,
                           bool starts, float* chain, std::size_t lastLanes) {
  const Tag d;
  Vec acc[R];
  HWY_UNROLL(16)
  for (int r = 0; r < R; ++r) {
    acc[r] = starts ? hn::Zero(d) : loadRow<kPartial, R>(chain, r, lastLanes);
  }
  for (std::size_t k = 0; k < columns; ++k, w += stride) {
    const Vec xk = hn::Set(d, x[k]);
    HWY_UNROLL(16)
    for (int r = 0; r < R; ++r) {
      __builtin_prefetch(w + static_cast<std::size_t>(r) * kLanes + kSweepColumns * stride, 0, 2);
      acc[r] = hn::MulAdd(loadRow<kPartial, R>(w, r, lastLanes), xk, acc[r]);
    }
  }
  HWY_UNROLL(16)
  for (int r = 0; r < R; ++r) storeRow<kPartial, R>(acc[r], chain, r, lastLanes);
}

// Some columns for all rows.
void sweepColumns(const float* w, std::size_t rows, const float* x, std::size_t columns,
                  bool starts, float* chain) {
  std::size_t row = 0;
  for (; row + kStripRows <= rows; row += kStripRows) {
    sweepStrip<false, kStripVectors>(w + row, rows, x, columns, starts, chain + row, kLanes);
  }
  for (; row + kLanes <= rows; row += kLanes) {
    sweepStrip<false, 1>(w + row, rows, x, columns, starts, chain + row, kLanes);
  }
  if (row == rows) return;
  sweepStrip<true, 1>(w + row, rows, x, columns, starts, chain + row, rows - row);
}

HWY_INLINE void addTo(float* y, const float* chain, std::size_t rows) {
  for (std::size_t row = 0; row < rows; ++row) y[row] += chain[row];
}

// Weights that stream through: a few columns at a time, each read from its start to its end,
// while the sums stay in the nearest cache.
void multiplySweeping(const LayerView& layer, const float* x, float* y, float* scratch) {
  const std::size_t length = chainLength(layer.rows);
  for (std::size_t at = 0; at < layer.cols; at += length) {
    const std::size_t end = at + length < layer.cols ? at + length : layer.cols;
    float* chain = at == 0 ? y : scratch;
    for (std::size_t k = at; k < end; k += kSweepColumns) {
      const std::size_t columns = end - k < kSweepColumns ? end - k : kSweepColumns;
      sweepColumns(layer.weights + k * layer.rows, layer.rows, x + k, columns, k == at, chain);
    }
    if (at != 0) addTo(y, scratch, layer.rows);
  }
}

// The results of a layer for one frame. `scratch` has room for a value for each row.
void matrixVector(const LayerView& layer, const float* x, float* y, float* scratch) {
  if (layer.cols == 0) {
    std::memset(y, 0, layer.rows * sizeof(float));
  } else if (layer.coded != nullptr) {
    return codesVector(layer, x, y);
  } else if (layer.rows * layer.cols * sizeof(float) < kSecondLevelBytes) {
    multiplyPanels(layer, x, y);
  } else {
    multiplySweeping(layer, x, y, scratch);
  }
  finishLayer(layer, 0, layer.rows, y, 0, 1);
}

}  // namespace HWY_NAMESPACE
}  // namespace mlnn
HWY_AFTER_NAMESPACE();

#endif  // per-target include guard
