// PrecisionGrid — a uniform grid of float values, onto which a model's parameters are
// snapped. docs/numerics.md derives the arithmetic.
#pragma once

#include <cstddef>

namespace mlnn {

// The smallest and the largest of some values.
struct ValueRange {
  float smallest;
  float largest;

  // Takes `count` values in, one after the other, by plain comparisons: NaN never counts, and
  // of equal values (-0 and 0) the first stays. A range that starts at NaN keeps it.
  void include(const float* values, std::size_t count);

  float width() const { return largest - smallest; }
};

// 2^bits steps from the smallest to the largest value of a range.
struct PrecisionGrid {
  float origin;  // grid point 0
  float scale;   // grid steps for each unit of value
  float step;    // distance of two grid points

  // REQUIRES: bits is 0 to 31.
  PrecisionGrid(const ValueRange& range, int bits);

  // Replaces each value by the grid point below it, all in single precision:
  //   d = value - origin;  p = scale * d;  q = p truncated to an unsigned 64-bit integer;
  //   value = origin + step * q, with one rounding.
  // The truncation saturates at 2^64 - 1, and a p that is not a number gives 0.
  // The result is the same to the bit on every processor.
  void snap(float* values, std::size_t count) const;
};

// The step counts of a grid of 2^bits steps as a signed 32-bit integer: negative for 31.
int gridSteps(int bits);

// The same operations without vector instructions, which the ones above use where the
// processor lacks them, and are tested against.
namespace plain {
void include(ValueRange& range, const float* values, std::size_t count);
void snap(const PrecisionGrid& grid, float* values, std::size_t count);
}  // namespace plain

}  // namespace mlnn
