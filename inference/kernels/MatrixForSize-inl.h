// Matrix times vectors where the library is built for size, in the order of additions that
// docs/forward-pass.md fixes: every layer of floats is swept, whatever its size, and every layer of
// codes is multiplied frame by frame. In place of MatrixVector-inl.h and MatrixFrames-inl.h.
// Compiled once for every instruction set.
#if defined(MLNN_MATRIX_FOR_SIZE_INL_H) == defined(HWY_TARGET_TOGGLE)
#ifdef MLNN_MATRIX_FOR_SIZE_INL_H
#undef MLNN_MATRIX_FOR_SIZE_INL_H
#else
#define MLNN_MATRIX_FOR_SIZE_INL_H
#endif

#include "inference/kernels/Activations-inl.h"
#include "inference/kernels/GridCodes-inl.h"
#include "inference/kernels/LayerView.h"
#include "inference/kernels/MatrixSweep-inl.h"
#include "inference/kernels/VectorOps-inl.h"

HWY_BEFORE_NAMESPACE();
namespace mlnn {
namespace HWY_NAMESPACE {

// The results of a layer for some frames. `scratch` is that of so many frames.
void matrixFrames(const LayerView& layer, const float* x, std::size_t xStride, float* y,
                  std::size_t yStride, std::size_t frames, float* scratch) {
  if (layer.cols == 0) return shiftsOnly(layer, y, yStride, frames);
  while (frames > 0) {
    std::size_t taken = 1;
    if (layer.coded != nullptr) {
      codesVector(layer, x, y);
    } else {
      taken = sweptAtOnce(frames);
      sweepLayer(layer, {x, xStride, y, yStride, taken}, scratch);
    }
    x += taken * xStride;
    y += taken * yStride;
    frames -= taken;
  }
}

// The results of a layer for one frame. `scratch` has room for a value for each row.
void matrixVector(const LayerView& layer, const float* x, float* y, float* scratch) {
  matrixFrames(layer, x, 0, y, 0, 1, scratch);
}

}  // namespace HWY_NAMESPACE
}  // namespace mlnn
HWY_AFTER_NAMESPACE();

#endif  // per-target include guard
