// UnfusedKernels — the floats of the integer pass: inputs to integers, sums to results, and layers
// that have no codes. docs/integer-pass.md fixes every rounding.
//
// No operation fuses multiplication and addition, and no order depends on the width of vectors, so
// every instruction set gives the same bits, but for those of NaN.
// Internal: not installed.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

#include "inference/kernels/LayerView.h"
#include "layers/ActFn.h"

namespace mlnn {

// The largest integer that stands for an input: of 8 bits, and of 16, which are two of 8 bits,
// 256 * high + low.
constexpr int kLargestInput = 127;
constexpr int kLargestWideInput = 127 * 256 + 127;

// Inputs that are all smaller than this count as 0.
constexpr float kSmallestInput = 0x1p-100f;

// How a frame's inputs become integers.
struct InputScales {
  float toInteger;  // 0 where all integers are
  float toFloat;
};

// Returns the scales for inputs of which the largest absolute value has these bits; those of NaN
// are larger than all others.
inline InputScales inputScalesFor(int32_t largestBits, int largestInteger) {
  constexpr int32_t kInfinityBits = 0x7f800000;
  constexpr int32_t kNaNBits = 0x7fc00000;
  const int32_t usedBits = largestBits >= kInfinityBits ? kNaNBits : largestBits;
  float largest;
  std::memcpy(&largest, &usedBits, sizeof largest);
  if (largestBits >= kInfinityBits) return {0.0f, largest};
  if (largest < kSmallestInput) return {0.0f, 0.0f};
  const auto most = static_cast<float>(largestInteger);
  return {most / largest, largest / most};
}

// What some outputs of a layer with codes have as sums, for some frames.
struct LayerSums {
  const int32_t* sums;       // those of a frame, in the order of outputs
  std::size_t stride;        // from one frame to the next
  bool areWide;              // of a frame, first the sums of the high bytes, then of the low ones
  const float* inputScales;  // for each frame
  const float* rowScales;    // of the layer
  std::size_t firstRow;
  std::size_t rows;
  std::size_t frames;
};

struct UnfusedKernels {
  const char* name;  // of the instruction set

  // Rounds inputs to integers, and returns their scale. `sum` becomes the sum of the integers.
  // Where an input is infinite or not a number, all integers are 0 and the scale is NaN.
  float (*toBytes)(const float* x, std::size_t count, int8_t* bytes, int32_t* sum);

  // The same with integers of 16 bits; `sums` become those of the high and of the low bytes.
  float (*toWords)(const float* x, std::size_t count, int8_t* high, int8_t* low, int32_t* sums);

  // y = actFn(scale .* (sums * scales) + shift) for rows of frames that are yStride apart; `y` is
  // the layer's first output.
  void (*finish)(const LayerView& layer, const LayerSums& sums, float* y, std::size_t yStride);

  // y = actFn(scale .* (weights * x) + shift), where each sum takes the inputs in order.
  // REQUIRES: x and y do not overlap.
  void (*multiply)(const LayerView& layer, const float* x, std::size_t xStride, float* y,
                   std::size_t yStride, std::size_t frames);

  // Replaces the values by exp(x) / sum(exp(x)), as Kernels::softmax does.
  void (*softmax)(float* values, std::size_t count);

  // Replaces every NaN by 7fc00000; softmax leaves no other one.
  void (*giveOneNaN)(float* values, std::size_t count);
};

// Returns fn(x), and exp(x) for an x that is not positive, as the kernels compute them.
float unfusedActivated(ActFn::ActFn fn, float x);
float unfusedExpOfNegative(float x);

// Returns the kernels for the best instruction set of this processor.
const UnfusedKernels& bestUnfusedKernels();

// Returns all that this processor can run, the best first; for tests.
std::vector<const UnfusedKernels*> runnableUnfusedKernels();

}  // namespace mlnn
