// Matrix times vector, in the order of additions that docs/forward-pass.md fixes.
// Compiled once for every instruction set.
#if defined(MLNN_MATRIX_VECTOR_INL_H) == defined(HWY_TARGET_TOGGLE)
#ifdef MLNN_MATRIX_VECTOR_INL_H
#undef MLNN_MATRIX_VECTOR_INL_H
#else
#define MLNN_MATRIX_VECTOR_INL_H
#endif

#include <algorithm>
#include <cstdint>

#include "inference/kernels/Activations-inl.h"
#include "inference/kernels/GridCodes-inl.h"
#include "inference/kernels/KernelChoice.h"
#include "inference/kernels/LayerView.h"
#include "inference/kernels/MatrixSweep-inl.h"
#include "inference/kernels/VectorOps-inl.h"

HWY_BEFORE_NAMESPACE();
namespace mlnn {
namespace HWY_NAMESPACE {

// A row panel is as many vectors of rows, with all inputs walked before the next one.
constexpr int kPanelVectors = kLanes >= 16 ? 16 : 8;

// The R vectors of a panel one behind the other; the last one begins as far before its place as
// rows are missing. Rows where two of them overlap are computed by both, to the same bits.
struct PanelRows {
  static constexpr bool kHasSeam = false;
  std::size_t last;

  template <int R>
  HWY_INLINE std::size_t of(int r) const {
    return r == R - 1 ? last : static_cast<std::size_t>(r) * kLanes;
  }
  template <int R>
  HWY_INLINE Vec load(const float* column, int r) const {
    return hn::LoadU(Tag(), column + of<R>(r));
  }
  template <int R>
  HWY_INLINE void store(Vec v, float* column, int r) const {
    hn::StoreU(v, Tag(), column + of<R>(r));
  }
};

// A panel of fewer rows than a vector has lanes.
struct FewRows {
  static constexpr bool kHasSeam = false;
  FirstLanes rows;

  template <int R>
  HWY_INLINE Vec load(const float* column, int) const {
    return rows.load(column);
  }
  template <int R>
  HWY_INLINE void store(Vec v, float* column, int) const {
    rows.store(v, column);
  }
};

// The first panel of a layer of whole vectors of rows that do not begin at a cache line, but do so
// at the same place in every column. Its vectors are whole lines; the first one is a seam: its
// upper lanes are the first rows of a column, its lower lanes the last rows of the column before.
struct SeamRows {
  static constexpr bool kHasSeam = true;
  std::size_t rows;  // of the layer
  FirstLanes lower;

  HWY_INLINE FirstLanes::Mask isLower() const { return lower.mask(); }
  HWY_INLINE FirstLanes::Mask isUpper() const { return hn::Not(isLower()); }

  template <int R>
  HWY_INLINE Vec load(const float* y, int r) const {
    if (r > 0) return hn::LoadU(Tag(), y + static_cast<std::size_t>(r) * kLanes);
    return hn::Or(hn::MaskedLoad(isUpper(), Tag(), y), hn::MaskedLoad(isLower(), Tag(), y + rows));
  }
  template <int R>
  HWY_INLINE void store(Vec v, float* y, int r) const {
    if (r > 0) return hn::StoreU(v, Tag(), y + static_cast<std::size_t>(r) * kLanes);
    hn::BlendedStore(v, isUpper(), Tag(), y);
    hn::BlendedStore(v, isLower(), Tag(), y + rows);
  }

  // The seam's chains before, between and behind the columns of a block.
  HWY_INLINE Vec begin(const float* seam, Vec x) const {
    const Vec first = hn::MaskedLoad(isUpper(), Tag(), seam);
    return hn::IfThenElseZero(isUpper(), hn::MulAdd(first, x, hn::Zero(Tag())));
  }
  HWY_INLINE Vec next(const float* seam, Vec xBefore, Vec x, Vec chain) const {
    return hn::MulAdd(hn::LoadU(Tag(), seam), hn::IfThenElse(isUpper(), x, xBefore), chain);
  }
  HWY_INLINE Vec end(const float* seam, Vec xBefore, Vec chain) const {
    const Vec last = hn::MaskedLoad(isLower(), Tag(), seam);
    return hn::IfThenElse(isLower(), hn::MulAdd(last, xBefore, chain), chain);
  }
};

// One input of B consecutive chains, which are `chainStride` apart in the weights. `before` is
// the input before it, for a seam.
template <int R, int B, bool kBegins, int kChains, typename Rows>
HWY_INLINE void panelStep(const float* w, std::size_t chainStride, const float* x,
                          std::size_t length, const Rows& rows, Vec (&before)[kChains],
                          Vec (&acc)[kChains][R]) {
  HWY_UNROLL(16)
  for (int b = 0; b < B; ++b) {
    const Vec xk = hn::Set(Tag(), x[static_cast<std::size_t>(b) * length]);
    const float* column = w + static_cast<std::size_t>(b) * chainStride;
    if constexpr (Rows::kHasSeam) {
      acc[b][0] = kBegins ? rows.begin(column, xk) : rows.next(column, before[b], xk, acc[b][0]);
      before[b] = xk;
    }
    HWY_UNROLL(16)
    for (int r = Rows::kHasSeam; r < R; ++r) {
      const Vec chain = kBegins ? hn::Zero(Tag()) : acc[b][r];
      acc[b][r] = hn::MulAdd(rows.template load<R>(column, r), xk, chain);
    }
  }
}

// Where the sums of a panel go: its first row in each of these.
struct PanelResults {
  const float* scale;  // null for none
  const float* shift;
  float* y;
};

// B consecutive chains of R vectors of rows at once; the last chain has `last` inputs, the
// others `length`. Adds the chains to y in their order; the very first is put there, and the very
// last is followed by scale and shift.
template <int R, int B, typename Rows>
HWY_INLINE void panelChains(const float* w, std::size_t stride, const float* x, std::size_t length,
                            std::size_t last, bool isFirst, bool isLast,
                            const PanelResults& results, const Rows& rows) {
  const std::size_t chainStride = length * stride;
  Vec acc[B][R];
  Vec before[B];
  panelStep<R, B, true>(w, chainStride, x, length, rows, before, acc);
  std::size_t k = 1;
  for (; k < last; ++k) {
    panelStep<R, B, false>(w + k * stride, chainStride, x + k, length, rows, before, acc);
  }
  if constexpr (Rows::kHasSeam) {
    acc[B - 1][0] =
        rows.end(w + (B - 1) * chainStride + last * stride, before[B - 1], acc[B - 1][0]);
  }
  if constexpr (B > 1) {
    for (; k < length; ++k) {
      panelStep<R, B - 1, false>(w + k * stride, chainStride, x + k, length, rows, before, acc);
    }
    if constexpr (Rows::kHasSeam) {
      HWY_UNROLL(16)
      for (int b = 0; b < B - 1; ++b) {
        const std::size_t end = static_cast<std::size_t>(b + 1) * chainStride;
        acc[b][0] = rows.end(w + end, before[b], acc[b][0]);
      }
    }
  }
  HWY_UNROLL(16)
  for (int r = 0; r < R; ++r) {
    if (!isFirst) acc[0][r] = hn::Add(rows.template load<R>(results.y, r), acc[0][r]);
    HWY_UNROLL(16)
    for (int b = 1; b < B; ++b) acc[0][r] = hn::Add(acc[0][r], acc[b][r]);
  }
  if (isLast) {
    const float* const scale = results.scale;
    HWY_UNROLL(16)
    for (int r = 0; r < R; ++r) {
      const Vec factor = scale == nullptr ? hn::Set(Tag(), 1.0f) : rows.template load<R>(scale, r);
      acc[0][r] = hn::MulAdd(factor, acc[0][r], rows.template load<R>(results.shift, r));
    }
  }
  HWY_UNROLL(16)
  for (int r = 0; r < R; ++r) rows.template store<R>(acc[0][r], results.y, r);
}

// The next chains, B at once if there are so many. Returns the inputs that they take.
template <int R, int B, typename Rows>
HWY_INLINE std::size_t nextChains(const LayerView& layer, std::size_t at, const float* w,
                                  const float* x, const PanelResults& results, const Rows& rows) {
  const std::size_t stride = layer.allRows();
  const std::size_t length = chainLength(stride);
  const std::size_t left = layer.cols - at;
  if constexpr (B > 1) {
    if (left <= length * (B - 1)) return nextChains<R, B / 2>(layer, at, w, x, results, rows);
  }
  const std::size_t last = std::min(left - length * (B - 1), length);
  const std::size_t inputs = length * (B - 1) + last;
  panelChains<R, B>(w + at * stride, stride, x + at, length, last, at == 0, inputs == left, results,
                    rows);
  return inputs;
}

// All inputs for R vectors of rows.
template <int R, typename Rows>
void rowPanel(const LayerView& layer, const float* w, const float* x, const PanelResults& results,
              const Rows& rows) {
  constexpr int kAtOnce = R >= 8 ? 1 : R >= 4 ? 2 : R >= 2 ? 4 : 8;
  for (std::size_t at = 0; at < layer.cols;) {
    at += nextChains<R, kAtOnce>(layer, at, w, x, results, rows);
  }
}

// Chooses the instance for `vectors` vectors of rows.
template <int R, typename Rows>
HWY_INLINE void rowPanelOf(std::size_t vectors, const LayerView& layer, const float* w,
                           const float* x, const PanelResults& results, const Rows& rows) {
  if constexpr (R > 1) {
    if (vectors < R) return rowPanelOf<R - 1>(vectors, layer, w, x, results, rows);
  }
  rowPanel<R>(layer, w, x, results, rows);
}

// The lanes by which the weights miss the vectors' natural places, where that is the same in all
// columns, all rows are there, and vectors that begin before the weights may be read in part; else
// 0.
HWY_INLINE std::size_t misplacedLanes(const LayerView& layer) {
  if (!kLoadsParts || layer.ofRows != 0 || layer.rows % kLanes != 0) return 0;
  return static_cast<std::size_t>(reinterpret_cast<std::uintptr_t>(layer.weights)) / sizeof(float) %
         kLanes;
}

// The results from a row on, which may be some lanes before the first one.
HWY_INLINE PanelResults resultsFrom(const LayerView& layer, float* y, std::ptrdiff_t row) {
  return {layer.scale == nullptr ? nullptr : layer.scale + row, layer.shift + row, y + row};
}

// Weights that stay in the processor's second-level cache: panel by panel, up to scale and shift. A
// last panel that has less than a vector of rows begins in the one before it.
void multiplyPanels(const LayerView& layer, const float* x, float* y) {
  constexpr std::size_t kPanelRows = kPanelVectors * kLanes;
  if (layer.rows == 0) return;
  if (layer.rows < kLanes) {
    return rowPanel<1>(layer, layer.weights, x, resultsFrom(layer, y, 0),
                       FewRows{FirstLanes(layer.rows)});
  }
  const std::size_t misplaced = misplacedLanes(layer);
  for (std::size_t from = 0; from < layer.rows; from += kPanelRows) {
    const std::size_t row = std::min(from, layer.rows - kLanes);
    const std::size_t count = std::min(layer.rows - row, kPanelRows);
    const std::size_t vectors = (count + kLanes - 1) / kLanes;
    const auto place = static_cast<std::ptrdiff_t>(row) - static_cast<std::ptrdiff_t>(misplaced);
    const PanelResults results = resultsFrom(layer, y, place);
    const float* const w = layer.weights + place;
    if (place < 0) {
      const SeamRows rows{layer.rows, FirstLanes(misplaced)};
      rowPanelOf<kPanelVectors>(vectors, layer, w, x, results, rows);
    } else {
      rowPanelOf<kPanelVectors>(vectors, layer, w, x, results, PanelRows{count - kLanes});
    }
  }
}

// The results of a layer for one frame. `scratch` has room for a value for each row.
void matrixVector(const LayerView& layer, const float* x, float* y, float* scratch) {
  if (layer.cols == 0) return shiftsOnly(layer, y, 0, 1);
  const VectorLoops loops = vectorLoopsFor(layer, kernelShape());
  if (loops == VectorLoops::kCodes) return codesVector(layer, x, y);
  if (kSweepFrames == 1 || loops == VectorLoops::kSweep)
    return sweepLayer(layer, {x, 0, y, 0, 1}, scratch);
  multiplyPanels(layer, x, y);
  if (layer.actFn != ActFn::linear) activate(layer.actFn, y, layer.rows);
}

}  // namespace HWY_NAMESPACE
}  // namespace mlnn
HWY_AFTER_NAMESPACE();

#endif  // per-target include guard
