// Arrays — NumPy's arrays as matrices, and matrices as NumPy's arrays.
#pragma once

#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>

#include <Eigen/Core>
#include <algorithm>
#include <cstring>
#include <memory>

namespace mlnn::python {

namespace py = pybind11;

using Frames = py::array_t<float>;  // frames x values
using Columns = Eigen::Map<const Eigen::MatrixXf, 0, Eigen::OuterStride<>>;

// Sees an array of frames x values as the matrix of values x frames that it is.
inline Columns columnsOf(const Frames& frames) {
  if (frames.ndim() != 2) throw py::value_error("frames must have two dimensions");
  const py::ssize_t values = frames.shape(1);
  if (frames.shape(0) == 0) {  // NumPy gives any strides then
    return Columns(frames.data(), values, 0, Eigen::OuterStride<>(values));
  }
  const py::ssize_t step = frames.strides(0) / static_cast<py::ssize_t>(sizeof(float));
  const bool fits = values <= 1 || frames.strides(1) == static_cast<py::ssize_t>(sizeof(float));
  const bool apart = frames.shape(0) == 1 || (step >= values && frames.strides(0) % 4 == 0);
  if (!fits || !apart) throw py::value_error("the values of a frame must lie side by side");
  return Columns(frames.data(), values, frames.shape(0),
                 Eigen::OuterStride<>(std::max(step, values)));
}

// Hands a matrix of values x frames to Python as an array of frames x values, uncopied.
inline py::array handOver(std::unique_ptr<Eigen::MatrixXf> matrix) {
  Eigen::MatrixXf* const held = matrix.get();
  const py::capsule owner(matrix.release(),
                          [](void* p) { delete static_cast<Eigen::MatrixXf*>(p); });
  const py::ssize_t size = sizeof(float);
  return py::array_t<float>({py::ssize_t{held->cols()}, py::ssize_t{held->rows()}},
                            {held->rows() * size, size}, held->data(), owner);
}

// Returns an array of a copy of the values.
inline Frames arrayOf(const float* values, std::size_t count) {
  Frames array(static_cast<py::ssize_t>(count));
  if (count > 0) std::memcpy(array.mutable_data(), values, count * sizeof(float));
  return array;
}

}  // namespace mlnn::python
