// Layers as bytes and back, copied and drawn: what takes a while with large ones. Python's handlers
// of signals run meanwhile, and stop the work by what they raise.
//
// REQUIRES of all: the thread holds the interpreter's lock, which the work gives up.
#pragma once

#include <pybind11/pybind11.h>

#include <memory>
#include <string_view>

#include "layers/NNLayer.h"

namespace mlnn::python {

namespace py = pybind11;

// Returns the layer's binary record.
// Throws: py::value_error where it would be too large.
py::bytes recordOf(const NNLayer& layer);

// Returns the layer of a binary record.
// Throws: py::value_error where it is none.
std::unique_ptr<NNLayer> layerOf(std::string_view record);

// Returns a layer as NNLayer's initialising constructor makes it. Between two pieces of the work
// others may draw from the random source, which is locked for each.
std::unique_ptr<NNLayer> drawnLayer(int numInputs, int numOutputs, float initScale, bool batchNorm);

}  // namespace mlnn::python
