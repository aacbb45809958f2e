// TableKernels — weights that are codes of a table times one vector, compiled for several
// instruction sets as Kernels.h has them. They are apart from those, since devices without a heap
// take no such weights.
#pragma once

#include <cstddef>
#include <vector>

#include "inference/kernels/LayerView.h"

namespace mlnn {

struct TableKernels {
  bool fuses;         // multiplies and adds with one rounding
  std::size_t lanes;  // floats in a vector

  // y = scale .* (weights * x) + shift for one frame, where the weights are layer.tableCodes. Gives
  // the bits that Kernels::matrixVector of the same set gives for the weights as floats.
  // REQUIRES: the layer has inputs and outputs; x and y do not overlap.
  void (*multiply)(const LayerView& layer, const float* x, float* y);
};

// Returns the kernels for the best instruction set of this processor.
const TableKernels& bestTableKernels();

// Returns all that this processor can run, the best first; for tests.
std::vector<const TableKernels*> runnableTableKernels();

}  // namespace mlnn
