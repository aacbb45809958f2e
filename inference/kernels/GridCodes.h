// GridCodes — a layer's weights as codes on a uniform grid, as the kernels read them; it owns
// nothing.
//
// The grid has 2^b steps, so 2^b + 1 points. A code is the number of its point: a byte, or for b
// up to 4 half a byte. Where b is 8 or 4 the last point has no code. Only the largest parameters
// of the model lie there; they are listed apart, and what their code says does not count.
// docs/forward-pass.md shows the layout.
#pragma once

#include <cstddef>
#include <cstdint>

namespace mlnn {

// Rows of a panel. The codes of a panel stand together, one input after the other.
constexpr std::size_t kCodedPanelRows = 64;

// The weights of one input in one panel that are on the point behind the last code: bit r for
// row r of the panel. Of one size on every platform, so that a model's codes are too.
struct LastPoints {
  uint64_t input;
  uint64_t rows;
};

struct GridCodes {
  const uint8_t* codes;  // panels x inputs x columnBytes()
  bool areHalfBytes;     // low half: rows 0 to 31 of the panel; high half: rows 32 to 63
  float origin;          // point p stands for fma(step, p, origin)
  float step;
  const float* values;     // those of all codes
  float lastValue;         // that of the point behind the last code
  const LastPoints* last;  // in the order of panels, then of inputs
  const uint64_t* lastOf;  // `last` begins there for each panel, and ends at the entry behind

  std::size_t columnBytes() const { return areHalfBytes ? kCodedPanelRows / 2 : kCodedPanelRows; }
};

}  // namespace mlnn
