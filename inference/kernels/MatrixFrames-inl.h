// Matrix times several vectors, in the order of additions that docs/forward-pass.md fixes.
// Compiled once for every instruction set.
#if defined(MLNN_MATRIX_FRAMES_INL_H) == defined(HWY_TARGET_TOGGLE)
#ifdef MLNN_MATRIX_FRAMES_INL_H
#undef MLNN_MATRIX_FRAMES_INL_H
#else
#define MLNN_MATRIX_FRAMES_INL_H
#endif

#include <algorithm>

#include "inference/kernels/Activations-inl.h"
#include "inference/kernels/GridCodes-inl.h"
#include "inference/kernels/KernelChoice.h"
#include "inference/kernels/Kernels.h"
#include "inference/kernels/LayerView.h"
#include "inference/kernels/MatrixSweep-inl.h"
#include "inference/kernels/VectorOps-inl.h"
#include "os/Builtins.h"

HWY_BEFORE_NAMESPACE();
namespace mlnn {
namespace HWY_NAMESPACE {

// The sums of a tile stay in registers: kTileVectors vectors of rows times kMostTileFrames frames.
constexpr int kTileVectors = kManyRegisters ? 4 : 2;
constexpr int kWideTileVectors = 3;  // times wideTileFrames(kManyRegisters) frames
constexpr std::size_t kTileRows = kTileVectors * kLanes;

// What a tile reads and writes.
struct Tile {
  const float* w;          // its first row and input
  std::size_t wStride;     // from one input to the next
  const float* x;          // its first input and frame
  std::size_t xStride;     // from one frame to the next
  float* y;                // its first row and frame
  std::size_t yStride;     // from one frame to the next
  FirstLanes last;         // rows of the last vector
  const float* next;       // weights that come after these
  std::size_t nextStride;  // from one input of them to the next
  int nextLines;           // cache lines of each input of them to fetch, or 0
};

// Asks for some cache lines to be in the second-level cache.
HWY_INLINE void fetchAhead(const float* next, int lines) {
  for (int line = 0; line < lines; ++line) prefetchOuter(next + std::ptrdiff_t{16} * line);
}

// One chain of `length` inputs for R vectors of rows and F frames; the last vector is not full
// where kPartial is set. Adds the chain to y, or puts it there. Fetches the weights behind
// tile.next where kFetches is set.
template <int R, int F, bool kFetches, bool kPartial>
void tileChain(const Tile& tile, std::size_t length, bool isFirst) {
  const Tag d;
  const std::size_t wStride = tile.wStride;
  const std::size_t xStride = tile.xStride;
  const std::size_t yStride = tile.yStride;
  const FirstLanes last = tile.last;
  Vec acc[F][R];
  HWY_UNROLL(8)
  for (int f = 0; f < F; ++f) {
    HWY_UNROLL(8)
    for (int r = 0; r < R; ++r) acc[f][r] = hn::Zero(d);
  }
  const float* w = tile.w;
  const float* x = tile.x;
  const float* next = tile.next;
  [[maybe_unused]] const int lines = tile.nextLines;
  for (std::size_t k = 0; k < length; ++k, w += wStride) {
    if constexpr (kFetches) {
      fetchAhead(next, lines);
      next += tile.nextStride;
    }
    Vec wk[R];
    HWY_UNROLL(8)
    for (int r = 0; r < R; ++r) wk[r] = loadRow<(kPartial && kLoadsParts), R>(w, r, last);
    HWY_UNROLL(8)
    for (int f = 0; f < F; ++f) {
      const Vec xk = hn::Set(d, x[static_cast<std::size_t>(f) * xStride + k]);
      HWY_UNROLL(8)
      for (int r = 0; r < R; ++r) acc[f][r] = hn::MulAdd(wk[r], xk, acc[f][r]);
    }
  }
  float* y = tile.y;
  HWY_UNROLL(8)
  for (int f = 0; f < F; ++f, y += yStride) {
    HWY_UNROLL(8)
    for (int r = 0; r < R; ++r) {
      if (!isFirst) acc[f][r] = hn::Add(loadRow<kPartial, R>(y, r, last), acc[f][r]);
      storeRow<kPartial, R>(acc[f][r], y, r, last);
    }
  }
}

using TileChain = void (*)(const Tile&, std::size_t length, bool isFirst);

// The instance for R vectors and F frames; null where no tile has as many.
template <int R, int F, bool kFetches, bool kPartial>
constexpr TileChain tileChainIfAny() {
  constexpr int kWide = R <= kWideTileVectors ? wideTileFrames(kManyRegisters) : 0;
  constexpr int kOther = R <= kTileVectors ? kMostTileFrames : 0;
  if constexpr (F <= kWide || F <= kOther) return tileChain<R, F, kFetches, kPartial>;
  return nullptr;
}

template <int R, bool kFetches, bool kPartial>
HWY_INLINE TileChain tileChainOf(std::size_t frames) {
  static constexpr TileChain kChains[kMostWideTileFrames] = {
      tileChainIfAny<R, 1, kFetches, kPartial>(), tileChainIfAny<R, 2, kFetches, kPartial>(),
      tileChainIfAny<R, 3, kFetches, kPartial>(), tileChainIfAny<R, 4, kFetches, kPartial>(),
      tileChainIfAny<R, 5, kFetches, kPartial>(), tileChainIfAny<R, 6, kFetches, kPartial>(),
      tileChainIfAny<R, 7, kFetches, kPartial>(), tileChainIfAny<R, 8, kFetches, kPartial>()};
  return kChains[frames - 1];
}

// The instance for so many vectors of rows.
template <bool kFetches, bool kPartial>
HWY_INLINE TileChain tileChainFor(std::size_t vectors, std::size_t frames) {
  if constexpr (kTileVectors == 4) {
    if (vectors == 4) return tileChainOf<4, kFetches, kPartial>(frames);
  }
  if (vectors == 3) return tileChainOf<3, kFetches, kPartial>(frames);
  return vectors == 2 ? tileChainOf<2, kFetches, kPartial>(frames)
                      : tileChainOf<1, kFetches, kPartial>(frames);
}

static_assert(std::max(kTileVectors, kWideTileVectors) * kLanes * kMostInputsAtOnce <= kPanelFloats,
              "a packed panel fits the scratch");
static_assert(kCodedPanelRows % kTileRows == 0, "a tile lies in one panel of codes");

// A row panel of at most kTileRows rows, and some inputs.
struct RowPanel {
  std::size_t row;
  std::size_t count;  // rows
  std::size_t input;
  std::size_t inputs;
  std::size_t chain;  // inputs in a chain

  // Rows with those that fill up the last vector.
  std::size_t fullRows() const { return (count + kLanes - 1) / kLanes * kLanes; }
  bool isPartial() const { return count % kLanes != 0; }
};

// Copies the weights of a panel, with zeros for the rows that it lacks.
void packFloats(const LayerView& layer, const RowPanel& panel, float* to) {
  const Tag d;
  const std::size_t stride = layer.allRows();
  const float* from = layer.weights + panel.input * stride + panel.row;
  if (panel.count == kTileRows) {
    for (std::size_t k = 0; k < panel.inputs; ++k, from += stride, to += kTileRows) {
      HWY_UNROLL(8)
      for (std::size_t i = 0; i < kTileRows; i += kLanes) {
        hn::Store(hn::LoadU(d, from + i), d, to + i);
      }
    }
    return;
  }
  for (std::size_t k = 0; k < panel.inputs; ++k, from += stride) {
    std::size_t i = 0;
    for (; i + kLanes <= panel.count; i += kLanes, to += kLanes) {
      hn::Store(hn::LoadU(d, from + i), d, to);
    }
    if (i == panel.count) continue;
    hn::Store(FirstLanes(panel.count - i).load(from + i), d, to);
    to += kLanes;
  }
}

// Puts the weights of a panel into the scratch, one input behind the other and with whole vectors
// of rows.
void packPanel(const LayerView& layer, const RowPanel& panel, float* to) {
  if (layer.coded == nullptr) return packFloats(layer, panel, to);
  const auto decode = layer.coded->areHalfBytes ? decodeRows<true> : decodeRows<false>;
  decode(layer, panel.row, panel.fullRows(), panel.input, panel.inputs, to);
}

// All chains of a panel for the `frames` frames of a tile, which is left as it was. It is changed
// in place, since a copy would be read before it has come to the cache.
HWY_INLINE void runTile(const RowPanel& panel, Tile& tile, std::size_t frames) {
  const std::size_t vectors = panel.fullRows() / kLanes;
  const bool fetches = tile.nextLines != 0;
  const TileChain chain = panel.isPartial() ? fetches ? tileChainFor<true, true>(vectors, frames)
                                                      : tileChainFor<false, true>(vectors, frames)
                          : fetches ? tileChainFor<true, false>(vectors, frames)
                                            : tileChainFor<false, false>(vectors, frames);
  const float* const w = tile.w;
  const float* const x = tile.x;
  const float* const next = tile.next;
  for (std::size_t k = 0; k < panel.inputs; k += panel.chain) {
    const std::size_t left = panel.inputs - k;
    chain(tile, left < panel.chain ? left : panel.chain, panel.input + k == 0);
    tile.w += panel.chain * tile.wStride;
    tile.x += panel.chain;
    if (fetches) tile.next += panel.chain * tile.nextStride;
  }
  tile.w = w;
  tile.x = x;
  tile.next = next;
}

// Divides a number into nearly equal parts, the larger ones first.
class Parts {
 public:
  HWY_INLINE Parts(std::size_t all, std::size_t count) : each_(all / count), larger_(all % count) {}

  // The part of index `i`.
  HWY_INLINE std::size_t operator[](std::size_t i) const { return each_ + (i < larger_ ? 1 : 0); }

 private:
  std::size_t each_;
  std::size_t larger_;
};

// A panel for all frames, in tiles of nearly the same number of frames. What comes next is
// fetched in nearly equal parts by the tiles, so that the memory is never waited for nor idle.
// Sums that have met all inputs become results while they are in the nearest cache.
void runPanel(const LayerView& layer, const RowPanel& panel, Tile& tile, std::size_t frames,
              std::size_t tileFrames) {
  const bool isLast = panel.input + panel.inputs == layer.cols;
  const std::size_t tiles = (frames + tileFrames - 1) / tileFrames;
  const std::size_t lines = panel.fullRows() / 16 + 1;  // they seldom begin with the panel
  const Parts counts(frames, tiles);
  const Parts fetched(tile.next == nullptr ? 0 : lines, tiles);
  for (std::size_t i = 0; i < tiles; ++i) {
    tile.nextLines = static_cast<int>(fetched[i]);
    runTile(panel, tile, counts[i]);
    if (isLast) finishLayer(layer, panel.row, panel.count, tile.y, tile.yStride, counts[i]);
    tile.next += std::size_t{16} * fetched[i];
    tile.x += counts[i] * tile.xStride;
    tile.y += counts[i] * tile.yStride;
  }
}

// Some rows of a layer of which all inputs are worked off before the next ones.
struct RowBlock {
  std::size_t first;
  std::size_t end;
};

// Where the weights of the panel after this one begin: that below it in its block, or the block's
// first of the next inputs, which may be fewer, or those of the next block. Null behind the last.
HWY_INLINE const float* weightsAfter(const LayerView& layer, const RowBlock& block,
                                     const RowPanel& panel) {
  const std::size_t row = panel.row + panel.count;
  if (row < block.end) return layer.weights + panel.input * layer.allRows() + row;
  const std::size_t input = panel.input + panel.inputs;
  if (input < layer.cols) return layer.weights + input * layer.allRows() + block.first;
  return block.end < layer.rows ? layer.weights + block.end : nullptr;
}

// What the frames of a layer are.
struct FrameValues {
  const float* x;
  std::size_t xStride;  // from one frame to the next
  float* y;
  std::size_t yStride;  // from one frame to the next
  std::size_t frames;
};

// The results of a block of rows, in tiles of the layer's kind.
HWY_INLINE void runBlock(const LayerView& layer, const FrameValues& values, const RowBlock& block,
                         bool isWide, float* scratch) {
  const KernelShape& shape = kernelShape();
  const std::size_t stride = layer.allRows();
  const bool fetches = fetchesNextPanel(layer, values.frames, shape, kManyRegisters);
  const std::size_t tileRows = isWide ? kWideTileVectors * kLanes : kTileRows;
  const std::size_t tileFrames =
      isWide ? std::size_t{wideTileFrames(kManyRegisters)} : shape.tileFrames;
  for (std::size_t input = 0; input < layer.cols; input += shape.inputsAtOnce) {
    const std::size_t inputs = std::min(shape.inputsAtOnce, layer.cols - input);
    for (std::size_t row = block.first; row < block.end; row += tileRows) {
      const std::size_t count = std::min(tileRows, block.end - row);
      const RowPanel panel{row, count, input, inputs, chainLength(stride)};
      Tile tile{layer.coded != nullptr ? nullptr : layer.weights + input * stride + row,
                stride,
                values.x + input,
                values.xStride,
                values.y + row,
                values.yStride,
                FirstLanes(kLanes - (panel.fullRows() - count)),
                fetches ? weightsAfter(layer, block, panel) : nullptr,
                stride,
                0};
      const bool loadsBadly = panel.isPartial() && !kLoadsParts;
      if (isPacked(layer, values.frames, loadsBadly, kManyRegisters)) {
        packPanel(layer, panel, scratch);
        tile.w = scratch;
        tile.wStride = panel.fullRows();
      }
      runPanel(layer, panel, tile, values.frames, tileFrames);
    }
  }
}

// The results of a layer for some frames. `scratch` has room for kPanelFloats values.
void matrixFrames(const LayerView& layer, const float* x, std::size_t xStride, float* y,
                  std::size_t yStride, std::size_t frames, float* scratch) {
  if (layer.cols == 0) return shiftsOnly(layer, y, yStride, frames);
  const FramesLoops loops = framesLoopsFor(layer, frames, kernelShape(), kManyRegisters);
  if (loops == FramesLoops::kSweep) {
    return sweepLayer(layer, {x, xStride, y, yStride, frames}, scratch);
  }
  const FrameValues values{x, xStride, y, yStride, frames};
  const std::size_t rows = rowsAtOnce(layer, frames, kManyRegisters);
  for (std::size_t first = 0; first < layer.rows; first += rows) {
    const RowBlock block{first, std::min(first + rows, layer.rows)};
    runBlock(layer, values, block, loops == FramesLoops::kWideTiles, scratch);
  }
}

}  // namespace HWY_NAMESPACE
}  // namespace mlnn
HWY_AFTER_NAMESPACE();

#endif  // per-target include guard
