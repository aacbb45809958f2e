// IntegerDots — products of 8-bit inputs with weights of 8 or 4 bits, summed exactly, by what the
// processor has for them. Integers have no rounding, so all give the same sums in any order.
// Internal: not installed.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "layers/RowCodes.h"

namespace mlnn {

// The most inputs of which no sum leaves 32 bits, whatever codes of -127 to 127 and inputs of -128
// to 127 are.
constexpr std::size_t kMostDotInputs = std::size_t{0x7fffffff} / (127 * 128);

// Inputs as integers from -128 to 127, one frame after the other.
struct ByteFrames {
  const int8_t* bytes;  // as DotKernels::arrange left them, with zeros up to a whole group
  std::size_t stride;   // bytes from one frame to the next
  const int32_t* sums;  // for each frame, that of its integers
  std::size_t frames;
  bool areNonNegative;  // all integers; where they are, some kernels are faster
};

// Panels and frames that go well together, because their sums fill the registers.
struct DotTile {
  std::size_t panels;
  std::size_t frames;
};

// What will be needed of the codes after this call, where they stream through the caches.
struct CodesAhead {
  bool stream = false;
  std::size_t first = 0;   // panel
  std::size_t panels = 0;  // to fetch during the call
};

struct DotKernels {
  const char* name;           // of the instruction set
  DotTile few;                // for no more frames than these
  DotTile many;               // for more
  std::size_t bytesPerInput;  // of the arranged inputs

  static constexpr std::size_t kMostAtOnce = 32;  // panels times frames of a tile

  // Arranges `count` integers of a frame, a multiple of 4, as `dots` takes them, without moving
  // their beginning: in place, up to count * bytesPerInput bytes.
  void (*arrange)(int8_t* bytes, std::size_t count);

  // sums[f * panels * 16 + r] = the sum of code times input over all inputs, for row r of the
  // `panels` panels from the panel `first` on, and frame f.
  // REQUIRES: 1 to few.frames frames; at most kMostDotInputs inputs.
  void (*dots)(const RowCodesView& codes, std::size_t first, std::size_t panels,
               const ByteFrames& x, const CodesAhead& ahead, int32_t* sums);
};

// Returns all that this processor can run, the best first. The last one is a plain loop.
std::vector<const DotKernels*> runnableDots();

// Returns the best one.
const DotKernels& bestDots();

}  // namespace mlnn
