// Kernels — the arithmetic of the forward pass, compiled for several instruction sets.
//
// Every set that fuses multiplication and addition gives the same bits; docs/forward-pass.md
// says which order of operations makes it so, and how far the others may lie away.
#pragma once

#include <cstddef>
#include <vector>

#include "inference/kernels/LayerView.h"
#include "layers/ActFn.h"

namespace mlnn {

// Floats of scratch memory, aligned to 64 bytes, that a layer of `rows` outputs takes.
constexpr std::size_t kPanelFloats = std::size_t{64} * 256;
constexpr std::size_t scratchFloats(std::size_t rows, std::size_t frames) {
  return frames == 1 || rows > kPanelFloats ? rows : kPanelFloats;
}

struct Kernels {
  const char* name;   // of the instruction set
  bool fuses;         // multiplies and adds with one rounding
  std::size_t lanes;  // floats in a vector

  // y = actFn(scale .* (weights * x) + shift) for one frame. `scratch` is that of one frame.
  void (*matrixVector)(const LayerView& layer, const float* x, float* y, float* scratch);

  // The same where the weights are layer.rowCodes; it needs no scratch. Gives the same bits.
  void (*rowCodesVector)(const LayerView& layer, const float* x, float* y);

  // As matrixVector for several frames; the strides lead from one frame to the next. Gives the same
  // bits as matrixVector.
  // REQUIRES: x and y do not overlap.
  void (*matrixFrames)(const LayerView& layer, const float* x, std::size_t xStride, float* y,
                       std::size_t yStride, std::size_t frames, float* scratch);

  // Replaces every value x by fn(x).
  void (*activate)(ActFn::ActFn fn, float* values, std::size_t count);

  // Replaces the values by exp(x) / sum(exp(x)), computed from the differences to the largest
  // so that nothing overflows. A NaN or plus infinity among them makes all of them NaN, and so
  // does minus infinity where nothing else stands.
  void (*softmax)(float* values, std::size_t count);
};

// Returns fn(x): the same bits as the kernels that fuse give.
float activated(ActFn::ActFn fn, float x);

// Returns exp(x) as the softmax takes it: the same bits as the kernels that fuse.
// REQUIRES: x is not positive, or NaN.
float singleExpOfNegative(float x);

// Returns the kernels for the best instruction set of this processor.
const Kernels& bestKernels();

// Returns all that this processor can run, the best first; for tests.
std::vector<const Kernels*> runnableKernels();

}  // namespace mlnn
