// Matrix times several vectors, in the order of additions that docs/forward-pass.md fixes.
// Compiled once for every instruction set.
#if defined(MLNN_MATRIX_FRAMES_INL_H) == defined(HWY_TARGET_TOGGLE)
#ifdef MLNN_MATRIX_FRAMES_INL_H
#undef MLNN_MATRIX_FRAMES_INL_H
#else
#define MLNN_MATRIX_FRAMES_INL_H
#endif

#include "inference/Activations-inl.h"
#include "inference/Kernels.h"
#include "inference/LayerView.h"
#include "inference/VectorOps-inl.h"

HWY_BEFORE_NAMESPACE();
namespace mlnn {
namespace HWY_NAMESPACE {

// The sums of a tile stay in registers: kTileVectors vectors of rows times kTileFrames frames.
// With 16 registers two vectors of rows leave room for six frames.
constexpr bool kManyRegisters = kLanes == 16 || HWY_ARCH_ARM_A64;
constexpr int kTileVectors = kManyRegisters ? 4 : 2;
constexpr int kTileFrames = 6;
constexpr std::size_t kTileRows = kTileVectors * kLanes;

// What a tile reads and writes.
struct Tile {
  const float* w;       // its first row and input
  std::size_t wStride;  // from one input to the next
  const float* x;       // its first input and frame
  std::size_t xStride;  // from one frame to the next
  float* y;             // its first row and frame
  std::size_t yStride;  // from one frame to the next
};

// One chain of `length` inputs for R vectors of rows and F frames. Adds it to y, or puts it
// there.
template <int R, int F>
void tileChain(const Tile& tile, std::size_t length, bool isFirst) {
  const Tag d;
  Vec acc[F][R];
  HWY_UNROLL(8)
  for (int f = 0; f < F; ++f) {
    HWY_UNROLL(8)
    for (int r = 0; r < R; ++r) acc[f][r] = hn::Zero(d);
  }
  const float* w = tile.w;
  for (std::size_t k = 0; k < length; ++k, w += tile.wStride) {
    Vec wk[R];
    HWY_UNROLL(8)
    for (int r = 0; r < R; ++r) wk[r] = hn::LoadU(d, w + static_cast<std::size_t>(r) * kLanes);
    HWY_UNROLL(8)
    for (int f = 0; f < F; ++f) {
      const Vec xk = hn::Set(d, tile.x[static_cast<std::size_t>(f) * tile.xStride + k]);
      HWY_UNROLL(8)
      for (int r = 0; r < R; ++r) acc[f][r] = hn::MulAdd(wk[r], xk, acc[f][r]);
    }
  }
  HWY_UNROLL(8)
  for (int f = 0; f < F; ++f) {
    HWY_UNROLL(8)
    for (int r = 0; r < R; ++r) {
      float* y = tile.y + static_cast<std::size_t>(f) * tile.yStride +
                 static_cast<std::size_t>(r) * kLanes;
      hn::StoreU(isFirst ? acc[f][r] : hn::Add(hn::LoadU(d, y), acc[f][r]), d, y);
    }
  }
}

using TileChain = void (*)(const Tile&, std::size_t length, bool isFirst);

template <int R>
HWY_INLINE TileChain tileChainOf(std::size_t frames) {
  static constexpr TileChain kChains[kTileFrames] = {tileChain<R, 1>, tileChain<R, 2>,
                                                     tileChain<R, 3>, tileChain<R, 4>,
                                                     tileChain<R, 5>, tileChain<R, 6>};
  return kChains[frames - 1];
}

// The instance for so many rows, those of a last vector that is not full included.
HWY_INLINE TileChain tileChainFor(std::size_t rows, std::size_t frames) {
  const std::size_t vectors = (rows + kLanes - 1) / kLanes;
  if constexpr (kTileVectors == 4) {
    if (vectors == 4) return tileChainOf<4>(frames);
    if (vectors == 3) return tileChainOf<3>(frames);
  }
  return vectors == 2 ? tileChainOf<2>(frames) : tileChainOf<1>(frames);
}

// Inputs that are worked off for all rows before the next ones: a multiple of both chain lengths.
constexpr std::size_t kPackedInputs = 256;
static_assert(kTileRows * kPackedInputs <= kScratchFloats, "a packed panel fits the scratch");

// From so many frames on a panel is copied to the scratch, one column behind the other.
constexpr std::size_t kPackFromFrames = 16;

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
void packPanel(const LayerView& layer, const RowPanel& panel, float* to) {
  const Tag d;
  const float* from = layer.weights + panel.input * layer.rows + panel.row;
  for (std::size_t k = 0; k < panel.inputs; ++k, from += layer.rows) {
    std::size_t i = 0;
    for (; i + kLanes <= panel.count; i += kLanes, to += kLanes) {
      hn::Store(hn::LoadU(d, from + i), d, to);
    }
    if (i == panel.count) continue;
    hn::Store(loadPart(from + i, panel.count - i), d, to);
    to += kLanes;
  }
}

// All chains of a panel for the `frames` frames of a tile.
HWY_INLINE void runTile(const RowPanel& panel, Tile tile, std::size_t frames) {
  const TileChain chain = tileChainFor(panel.count, frames);
  for (std::size_t k = 0; k < panel.inputs; k += panel.chain) {
    const std::size_t left = panel.inputs - k;
    chain(tile, left < panel.chain ? left : panel.chain, panel.input + k == 0);
    tile.w += panel.chain * tile.wStride;
    tile.x += panel.chain;
  }
}

HWY_INLINE void copyRows(const float* from, std::size_t fromStride, float* to, std::size_t toStride,
                         std::size_t rows, std::size_t frames) {
  for (std::size_t f = 0; f < frames; ++f) {
    std::memcpy(to + f * toStride, from + f * fromStride, rows * sizeof(float));
  }
}

// The same where the last vector of rows is not full: on a copy of the sums with room for it.
void runPartialTile(const RowPanel& panel, const Tile& tile, std::size_t frames) {
  float sums[kTileRows * kTileFrames];
  Tile padded = tile;
  padded.y = sums;
  padded.yStride = panel.fullRows();
  if (panel.input != 0) {
    std::memset(sums, 0, sizeof sums);
    copyRows(tile.y, tile.yStride, sums, padded.yStride, panel.count, frames);
  }
  runTile(panel, padded, frames);
  copyRows(sums, padded.yStride, tile.y, tile.yStride, panel.count, frames);
}

// A panel for all frames, in tiles of nearly the same number of frames.
void runPanel(const RowPanel& panel, Tile tile, std::size_t frames) {
  for (std::size_t tiles = (frames + kTileFrames - 1) / kTileFrames; tiles > 0; --tiles) {
    const std::size_t count = (frames + tiles - 1) / tiles;
    if (panel.isPartial()) {
      runPartialTile(panel, tile, count);
    } else {
      runTile(panel, tile, count);
    }
    tile.x += count * tile.xStride;
    tile.y += count * tile.yStride;
    frames -= count;
  }
}

// A layer without inputs: all sums are 0.
void shiftsOnly(const LayerView& layer, float* y, std::size_t yStride, std::size_t frames) {
  for (std::size_t f = 0; f < frames; ++f)
    std::memset(y + f * yStride, 0, layer.rows * sizeof(float));
  finishLayer(layer, 0, layer.rows, y, yStride, frames);
}

// The results of a layer for some frames. `scratch` has room for kScratchFloats values.
void matrixFrames(const LayerView& layer, const float* x, std::size_t xStride, float* y,
                  std::size_t yStride, std::size_t frames, float* scratch) {
  if (layer.cols == 0) return shiftsOnly(layer, y, yStride, frames);
  const std::size_t chain = chainLength(layer.rows);
  const bool packs = frames >= kPackFromFrames;
  const std::size_t step = packs ? kPackedInputs : kChainLength;
  for (std::size_t input = 0; input < layer.cols; input += step) {
    const std::size_t inputs = layer.cols - input < step ? layer.cols - input : step;
    for (std::size_t row = 0; row < layer.rows; row += kTileRows) {
      const std::size_t count = layer.rows - row < kTileRows ? layer.rows - row : kTileRows;
      const RowPanel panel{row, count, input, inputs, chain};
      Tile tile{layer.weights + input * layer.rows + row,
                layer.rows,
                x + input,
                xStride,
                y + row,
                yStride};
      if (packs || panel.isPartial()) {
        packPanel(layer, panel, scratch);
        tile.w = scratch;
        tile.wStride = panel.fullRows();
      }
      runPanel(panel, tile, frames);
      if (input + inputs == layer.cols) finishLayer(layer, row, count, y + row, yStride, frames);
    }
  }
}

}  // namespace HWY_NAMESPACE
}  // namespace mlnn
HWY_AFTER_NAMESPACE();

#endif  // per-target include guard
