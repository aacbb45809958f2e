// KernelChoice — by which loops a layer's weights are multiplied with how many frames, and in which
// blocks. What is chosen changes speed alone: all loops give the same bits.
//
//   frames      weights                                         loops
//   ----------  ----------------------------------------------  -----------------------------------
//   1           codes                                           codesVector (GridCodes-inl.h)
//   1           codes by rows, of an image                      rowCodesVector (RowCodes-inl.h)
//   1           codes of a table, of an image                   TableKernels (TableCodes-inl.h)
//   1           floats that stream                              sweepLayer (MatrixSweep-inl.h)
//   1           other floats                                    multiplyPanels (MatrixVector-inl.h)
//   2 to 8      floats from the memory, columns of a page       sweepLayer
//   2 to 8      twice those that stream, and few registers      sweepLayer
//   some        other floats                                    wide tiles (MatrixFrames-inl.h)
//   any other   any other                                       tiles (MatrixFrames-inl.h)
//
// From which sizes on weights stream or come from the memory, how large tiles are, and which
// numbers of frames take wide ones, is the shape of the loops, which follows the processor
// (kernelShape).
//
// Built for size (layers/BuiltForSize.h) there is no shape to choose, and there are codesVector and
// sweepLayer alone (MatrixForSize-inl.h), beside those for an image. Layers whose weights do not
// lie in memory as floats or as codes, and an image's codes for several frames, are unpacked some
// rows at a time first, and are floats then (LayerStackPass.cpp). Among instruction sets
// bestKernels() chooses (Kernels.cpp).
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <string_view>

#include "inference/kernels/LayerView.h"
#include "layers/BuiltForSize.h"

namespace mlnn {

constexpr std::size_t kFloatsInPage = 1024;

// Frames that a sweep takes at most, and those of the two kinds of tiles, of which wide ones have
// fewer rows. WebAssembly, for whose code a page waits, has no panels and no wide tiles, and sweeps
// of one frame.
#ifdef __wasm__
constexpr std::size_t kSweepFrames = 1;
constexpr bool kHasWideTiles = false;
#else
constexpr std::size_t kSweepFrames = 8;
constexpr bool kHasWideTiles = true;
#endif
constexpr int kMostTileFrames = 6;
constexpr int kMostWideTileFrames = 8;
constexpr int wideTileFrames(bool hasManyRegisters) {
  if (!kHasWideTiles) return 0;
  return hasManyRegisters ? kMostWideTileFrames : 4;
}

// Which layers of floats meet frames in wide tiles, where these just fit one (or two, where
// registers are few) and do not fit another.
enum class WideTiles { kNone, kStreaming, kAll };

// How the loops over floats go through a layer.
struct KernelShape {
  const char* name;
  std::size_t tileFrames;  // of a tile at most: 1 to kMostTileFrames
  WideTiles wideTiles;
  std::size_t inputsAtOnce;  // of all rows: a multiple of kChainLength, kMostInputsAtOnce at most
  std::size_t secondLevelBytes;  // weights of so many bytes stream through the nearer caches
  std::size_t thirdLevelBytes;   // weights of so many bytes come from the memory, or cost as much
};

constexpr std::size_t kMostInputsAtOnce = 256;

// All shapes, for common sizes of caches. Tiles of six frames read fewer weights for each product,
// which processors with two fused units need, and cost the others nothing. Few inputs at once touch
// fewer pages of weights, which counts where rows lie pages apart.
constexpr std::array<KernelShape, 4> kKernelShapes = {{
    {"six", 6, WideTiles::kStreaming, 128, kSecondLevelBytes, kThirdLevelBytes},
    {"five", 5, WideTiles::kStreaming, 256, kSecondLevelBytes, kThirdLevelBytes},
    {"wide", 6, WideTiles::kAll, 128, kSecondLevelBytes, kThirdLevelBytes},
    {"narrow", 6, WideTiles::kNone, 256, kSecondLevelBytes, kThirdLevelBytes},
}};

// Sizes in bytes; 0 where they are not known.
struct CacheSizes {
  std::size_t secondLevel;
  std::size_t thirdLevel;
};

// Returns the shape for a processor, or where `name` is that of a shape, that one.
constexpr KernelShape kernelShapeFor(const CacheSizes& caches, std::string_view name) {
  for (const KernelShape& shape : kKernelShapes) {
    if (name == shape.name) return shape;
  }
  KernelShape shape = kKernelShapes.front();
  // Half of a large cache holds a layer beside what else goes through; in a small one all layers of
  // more than its size stream. Of a third-level cache that others share a part counts alone.
  const std::size_t half = caches.secondLevel / 2;
  if (half > 0) shape.secondLevelBytes = std::max(std::min(2 * half, kSecondLevelBytes), half);
  const std::size_t quarter = caches.thirdLevel / 4;
  if (quarter > 0) shape.thirdLevelBytes = std::min(quarter, kThirdLevelBytes);
  return shape;
}

#if MLNN_BUILT_FOR_SIZE

// The one shape: sweeps of four frames, eight inputs at once.
constexpr KernelShape kernelShape() { return {"small", 4, WideTiles::kNone, 8, 0, 0}; }

#else

// Returns the shape in use: the one that was fixed; else the one that MLNN_KERNEL_SHAPE in the
// environment names; else the one for this processor. The environment and the processor are looked
// at once. May be called by several threads.
const KernelShape& kernelShape();

// Fixes the shape for all passes, or where it is null, sets it free again. Results do not depend on
// it, so it may change while passes run.
// REQUIRES: the shape outlives its use.
void fixKernelShape(const KernelShape* shape);

#endif

enum class VectorLoops { kCodes, kSweep, kPanels };
enum class FramesLoops { kSweep, kTiles, kWideTiles };

constexpr std::size_t bytesOfFloats(const LayerView& layer) {
  return layer.rows * layer.cols * sizeof(float);
}

// Whether floats pass through the second-level cache without staying there.
constexpr bool streams(const LayerView& layer, const KernelShape& shape) {
  return layer.coded == nullptr && bytesOfFloats(layer) >= shape.secondLevelBytes;
}

// Whether one frame meets floats sooner than the codes of a table, or of rows, that they are made
// of.
constexpr bool floatsPay(bool hasTable, bool hasRowCodes, const LayerView& layer,
                         const KernelShape& shape) {
  return hasTable || (hasRowCodes && !streams(layer, shape));
}

// For one frame.
constexpr VectorLoops vectorLoopsFor(const LayerView& layer, const KernelShape& shape) {
  if (layer.coded != nullptr) return VectorLoops::kCodes;
  return streams(layer, shape) ? VectorLoops::kSweep : VectorLoops::kPanels;
}

// Where registers are few, three vectors of rows by four frames need fewer loads for each product
// than two by as many; five and six frames fit a tile of six.
constexpr bool takesWideTile(const LayerView& layer, std::size_t frames, const KernelShape& shape,
                             bool hasManyRegisters) {
  if (!kHasWideTiles) return false;
  if (!hasManyRegisters) {
    return shape.wideTiles != WideTiles::kNone && layer.coded == nullptr &&
           (frames <= 4 || frames == 7 || frames == 8);
  }
  if (frames <= shape.tileFrames || frames > kMostWideTileFrames) return false;
  if (shape.wideTiles == WideTiles::kAll) return true;
  return shape.wideTiles == WideTiles::kStreaming && streams(layer, shape);
}

// Whether few frames are swept. That is best where weights come from the memory and each column
// fills a page: in a panel of rows, every input would be read from another page. From the
// third-level cache that costs less than keeping the chains, unless registers are few and a panel
// is a cache line wide: then it would read a line here and there, of which the second-level cache
// keeps enough only where the weights are less than twice of what streams.
constexpr bool sweepsFewFrames(const LayerView& layer, const KernelShape& shape,
                               bool hasManyRegisters) {
  if (!hasManyRegisters) {
    return streams(layer, shape) && bytesOfFloats(layer) >= 2 * shape.secondLevelBytes;
  }
  return layer.coded == nullptr && layer.rows >= kFloatsInPage &&
         bytesOfFloats(layer) >= shape.thirdLevelBytes;
}

// For several frames. `hasManyRegisters`: the instruction set has 32 registers of vectors.
constexpr FramesLoops framesLoopsFor(const LayerView& layer, std::size_t frames,
                                     const KernelShape& shape, bool hasManyRegisters) {
  if (frames == 1 && streams(layer, shape)) return FramesLoops::kSweep;
  if (frames > 1 && frames <= kSweepFrames && sweepsFewFrames(layer, shape, hasManyRegisters)) {
    return FramesLoops::kSweep;
  }
  return takesWideTile(layer, frames, shape, hasManyRegisters) ? FramesLoops::kWideTiles
                                                               : FramesLoops::kTiles;
}

// How many of so many frames are swept together: as many as there are, up to kSweepFrames. Built
// for size there are loops for one frame and for four.
constexpr std::size_t sweptAtOnce(std::size_t frames) {
  if (kBuiltForSize) return frames < 4 ? 1 : 4;
  return std::min(frames, kSweepFrames);
}

// From so many frames on copies of weights and results nearby pay where registers are few.
constexpr std::size_t kManyForFewRegisters = 49;

// Whether tiles read a copy of a panel of rows: what is no float, or no whole vector where parts
// load badly (`loadsBadly`); and for many frames, inputs that lie so far apart that they share few
// places of a cache. Panels of few registers are a line wide, and so lose more by that.
constexpr bool isPacked(const LayerView& layer, std::size_t frames, bool loadsBadly,
                        bool hasManyRegisters) {
  if (layer.coded != nullptr || loadsBadly) return true;
  constexpr std::size_t kManyFrames = 192;
  constexpr std::size_t kFarApart = 128;
  return hasManyRegisters ? frames >= kManyFrames && layer.rows >= kFloatsInPage
                          : frames >= kManyForFewRegisters && layer.rows >= kFarApart;
}

// Whether a panel's tiles fetch the weights of the next one. Where registers are few and panels are
// copied, the copying reads them soon enough.
constexpr bool fetchesNextPanel(const LayerView& layer, std::size_t frames,
                                const KernelShape& shape, bool hasManyRegisters) {
  return streams(layer, shape) && (hasManyRegisters || frames < kManyForFewRegisters);
}

// The rows of which all inputs are worked off before the next rows: where registers are few, so
// many that the results of all frames stay in the second-level cache. For fewer frames the weights'
// order counts more.
constexpr std::size_t rowsAtOnce(const LayerView& layer, std::size_t frames,
                                 bool hasManyRegisters) {
  constexpr std::size_t kResults = std::size_t{1} << 16;
  constexpr std::size_t kRows = 64;  // whole panels
  if (hasManyRegisters || frames < kManyForFewRegisters) return layer.rows;
  return std::max(kResults / frames / kRows * kRows, kRows);
}

// The rows of weights that are unpacked at once: few enough to stay in the second-level cache,
// where that is possible. They are more than kFewRows, or all, so that blocks of rows have the
// layer's own order of additions.
constexpr std::size_t rowsUnpackedAtOnce(const LayerView& layer) {
  constexpr std::size_t kFloats = std::size_t{1} << 16;
  constexpr std::size_t kAtLeast = 64;
  static_assert(kAtLeast > kFewRows);
  if (layer.cols == 0) return layer.rows;
  return std::min(std::max(kFloats / layer.cols, kAtLeast), layer.rows);
}

}  // namespace mlnn
