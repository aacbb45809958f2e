// Matrix times vector, in the order of additions that docs/forward-pass.md fixes.
// Compiled once for every instruction set.
#if defined(MLNN_MATRIX_VECTOR_INL_H) == defined(HWY_TARGET_TOGGLE)
#ifdef MLNN_MATRIX_VECTOR_INL_H
#undef MLNN_MATRIX_VECTOR_INL_H
#else
#define MLNN_MATRIX_VECTOR_INL_H
#endif

#include "inference/Activations-inl.h"
#include "inference/LayerView.h"
#include "inference/VectorOps-inl.h"

HWY_BEFORE_NAMESPACE();
namespace mlnn {
namespace HWY_NAMESPACE {

// A row panel is as many vectors of rows, with all inputs walked before the next one.
constexpr int kPanelVectors = kLanes >= 16 ? 16 : 8;

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
  for (int b = 0; b < B; ++b) {
    for (int r = 0; r < R; ++r) acc[b][r] = hn::Zero(d);
  }
  for (std::size_t k = 0; k < last; ++k) {
    for (int b = 0; b < B; ++b) {
      const std::size_t input = static_cast<std::size_t>(b) * length + k;
      const Vec xk = hn::Set(d, x[input]);
      for (int r = 0; r < R; ++r) {
        const Vec wk = loadRow<kPartial, R>(w + input * stride, r, lastLanes);
        acc[b][r] = hn::MulAdd(wk, xk, acc[b][r]);
      }
    }
  }
  for (std::size_t k = last; B > 1 && k < length; ++k) {
    for (int b = 0; b + 1 < B; ++b) {
      const std::size_t input = static_cast<std::size_t>(b) * length + k;
      const Vec xk = hn::Set(d, x[input]);
      for (int r = 0; r < R; ++r) {
        const Vec wk = loadRow<kPartial, R>(w + input * stride, r, lastLanes);
        acc[b][r] = hn::MulAdd(wk, xk, acc[b][r]);
      }
    }
  }
  for (int r = 0; r < R; ++r) {
    Vec sum = isFirst ? acc[0][r] : hn::Add(loadRow<kPartial, R>(y, r, lastLanes), acc[0][r]);
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

// G columns for all rows: goes on with the chains in `chain`, or starts them.
template <int G>
void sweepColumns(const float* w, std::size_t rows, const float* x, bool starts, float* chain) {
  const Tag d;
  Vec xs[G];
  for (int g = 0; g < G; ++g) xs[g] = hn::Set(d, x[g]);
  std::size_t row = 0;
  for (; row + kLanes <= rows; row += kLanes) {
    Vec acc = starts ? hn::Zero(d) : hn::LoadU(d, chain + row);
    for (int g = 0; g < G; ++g) {
      acc = hn::MulAdd(hn::LoadU(d, w + static_cast<std::size_t>(g) * rows + row), xs[g], acc);
    }
    hn::StoreU(acc, d, chain + row);
  }
  if (row == rows) return;
  const std::size_t rest = rows - row;
  Vec acc = starts ? hn::Zero(d) : loadPart(chain + row, rest);
  for (int g = 0; g < G; ++g) {
    acc = hn::MulAdd(loadPart(w + static_cast<std::size_t>(g) * rows + row, rest), xs[g], acc);
  }
  storePart(acc, chain + row, rest);
}

HWY_INLINE void addTo(float* y, const float* chain, std::size_t rows) {
  for (std::size_t row = 0; row < rows; ++row) y[row] += chain[row];
}

// Weights that stream through: a few columns at a time, each read from its start to its end,
// while the sums stay in the nearest cache.
void multiplySweeping(const LayerView& layer, const float* x, float* y, float* scratch) {
  constexpr std::size_t kGroup = 8;
  const std::size_t length = chainLength(layer.rows);
  for (std::size_t at = 0; at < layer.cols; at += length) {
    const std::size_t end = at + length < layer.cols ? at + length : layer.cols;
    float* chain = at == 0 ? y : scratch;
    for (std::size_t k = at; k < end;) {
      const float* w = layer.weights + k * layer.rows;
      if (end - k >= kGroup) {
        sweepColumns<kGroup>(w, layer.rows, x + k, k == at, chain);
        k += kGroup;
      } else {
        sweepColumns<1>(w, layer.rows, x + k, k == at, chain);
        k += 1;
      }
    }
    if (at != 0) addTo(y, scratch, layer.rows);
  }
}

// The results of a layer for one frame. `scratch` has room for a value for each row.
void matrixVector(const LayerView& layer, const float* x, float* y, float* scratch) {
  constexpr std::size_t kSecondLevelBytes = std::size_t{1} << 20;
  if (layer.cols == 0) {
    std::memset(y, 0, layer.rows * sizeof(float));
  } else if (layer.rows * layer.cols * sizeof(float) <= kSecondLevelBytes) {
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
