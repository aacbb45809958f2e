// Analysis — what mlnn::analysis knows of models, as plain dictionaries and lists of Python.
#pragma once

#include <pybind11/pybind11.h>

namespace mlnn::python {

// REQUIRES: Core is bound already.
void bindAnalysis(pybind11::module_& module);

}  // namespace mlnn::python
