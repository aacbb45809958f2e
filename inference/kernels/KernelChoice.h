// KernelChoice — by which loops a layer's weights are multiplied with how many frames. What is
// chosen changes speed alone: all loops give the same bits.
//
//   frames      weights                                         loops
//   ----------  ----------------------------------------------  -----------------------------------
//   1           codes                                           codesVector (GridCodes-inl.h)
//   1           floats that stream                              sweepLayer (MatrixSweep-inl.h)
//   1           other floats                                    multiplyPanels (MatrixVector-inl.h)
//   2 to 8      8 MiB of floats or more in 1024 rows or more    sweepLayer
//   6 to 8      other floats that stream                        wide tiles (MatrixFrames-inl.h)
//   any other   any other                                       tiles (MatrixFrames-inl.h)
//
// Built for size (layers/BuiltForSize.h) there are codesVector and sweepLayer alone
// (MatrixForSize-inl.h). Layers whose weights do not lie in memory as floats or as codes are
// unpacked some rows at a time first, and are floats then (LayerStackPass.cpp). Among instruction
// sets bestKernels() chooses (Kernels.cpp).
#pragma once

#include <algorithm>
#include <cstddef>

#include "inference/kernels/LayerView.h"
#include "layers/BuiltForSize.h"

namespace mlnn {

constexpr std::size_t kFloatsInPage = 1024;

// Frames that a sweep takes at most, and those of the two kinds of tiles, of which wide ones have
// fewer rows.
constexpr std::size_t kSweepFrames = 8;
constexpr int kTileFrames = 5;
constexpr int kWideTileFrames = 8;

enum class VectorLoops { kCodes, kSweep, kPanels };
enum class FramesLoops { kSweep, kTiles, kWideTiles };

constexpr std::size_t bytesOfFloats(const LayerView& layer) {
  return layer.rows * layer.cols * sizeof(float);
}

// Whether floats pass through the second-level cache without staying there.
constexpr bool streams(const LayerView& layer) {
  return layer.coded == nullptr && bytesOfFloats(layer) >= kSecondLevelBytes;
}

// For one frame.
constexpr VectorLoops vectorLoopsFor(const LayerView& layer) {
  if (layer.coded != nullptr) return VectorLoops::kCodes;
  return streams(layer) ? VectorLoops::kSweep : VectorLoops::kPanels;
}

// For several frames. A sweep is best where weights come from the memory and each column fills a
// page: in a panel of rows, every input would be read from another page. From the third-level cache
// that costs less than keeping the chains.
constexpr FramesLoops framesLoopsFor(const LayerView& layer, std::size_t frames) {
  if (frames == 1 && streams(layer)) return FramesLoops::kSweep;
  const bool isLarge = layer.coded == nullptr && layer.rows >= kFloatsInPage &&
                       bytesOfFloats(layer) >= kThirdLevelBytes;
  if (frames > 1 && frames <= kSweepFrames && isLarge) return FramesLoops::kSweep;
  const bool isWide = streams(layer) && frames > kTileFrames && frames <= kWideTileFrames;
  return isWide ? FramesLoops::kWideTiles : FramesLoops::kTiles;
}

// How many of so many frames are swept together: as many as there are, up to kSweepFrames. Built
// for size there are loops for one frame and for four.
constexpr std::size_t sweptAtOnce(std::size_t frames) {
  if (kBuiltForSize) return frames < 4 ? 1 : 4;
  return std::min(frames, kSweepFrames);
}

// Whether tiles read a copy of a panel of rows: what is no float, or no whole vector where parts
// load badly (`loadsBadly`); and for many frames, inputs that lie pages apart and so share few
// places of a cache.
constexpr bool isPacked(const LayerView& layer, std::size_t frames, bool loadsBadly) {
  constexpr std::size_t kManyFrames = 192;
  if (layer.coded != nullptr || loadsBadly) return true;
  return frames >= kManyFrames && layer.rows >= kFloatsInPage;
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
