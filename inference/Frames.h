// Frames — frames in memory that belongs to the caller, as a forward pass reads and writes them.
//
// Two plain descriptions, which own nothing: the memory must stay while they are in use. Eigen's
// matrices, vectors, maps and blocks of float turn into them by themselves, one frame a column.
#pragma once

#include <Eigen/Core>
#include <cstddef>
#include <type_traits>
#include <utility>

namespace mlnn {

// Whether the values of an Eigen expression are floats that lie in memory.
template <typename Matrix>
inline constexpr bool kAreFloatsInMemory = std::is_same_v<typename Matrix::Scalar, float> &&
                                           (int(Matrix::Flags) & int(Eigen::DirectAccessBit)) != 0;

// Whether, as far as the type tells, the values of a column lie one behind the other.
template <typename Matrix>
inline constexpr bool kHasWholeColumns = int(Matrix::RowsAtCompileTime) == 1 ||
                                         (!Matrix::IsRowMajor &&
                                          int(Matrix::InnerStrideAtCompileTime) == 1);

// Frames to read: value v of frame f is values[f * frameStride + v * valueStride]. Strides may be
// anything, so that frames may overlap, stand in rows, be the same one, or run backwards.
struct InputFrames {
  const float* values;         // the first one
  std::ptrdiff_t width;        // values in a frame
  std::ptrdiff_t frames;       // their number
  std::ptrdiff_t frameStride;  // floats from one frame to the next
  std::ptrdiff_t valueStride;  // floats from one value of a frame to the next

  // Frames with strides.
  InputFrames(const float* values_, std::ptrdiff_t width_, std::ptrdiff_t frames_,
              std::ptrdiff_t frameStride_, std::ptrdiff_t valueStride_ = 1)
      : values(values_),
        width(width_),
        frames(frames_),
        frameStride(frameStride_),
        valueStride(valueStride_) {}

  // Frames one behind the other.
  InputFrames(const float* values_, std::ptrdiff_t width_, std::ptrdiff_t frames_)
      : InputFrames(values_, width_, frames_, width_) {}

  // The columns of a matrix.
  template <typename Matrix, std::enable_if_t<kAreFloatsInMemory<Matrix>, int> = 0>
  InputFrames(const Eigen::DenseBase<Matrix>& matrix)  // NOLINT(google-explicit-constructor)
      : InputFrames(matrix.derived().data(), matrix.rows(), matrix.cols(),
                    matrix.derived().colStride(), matrix.derived().rowStride()) {}
};

// Room for frames to write: value v of frame f becomes values[f * frameStride + v].
struct OutputFrames {
  float* values;               // the first one
  std::ptrdiff_t width;        // values in a frame
  std::ptrdiff_t frames;       // their number
  std::ptrdiff_t frameStride;  // floats from one frame to the next; at least `width`

  // Frames with a stride.
  OutputFrames(float* values_, std::ptrdiff_t width_, std::ptrdiff_t frames_,
               std::ptrdiff_t frameStride_)
      : values(values_), width(width_), frames(frames_), frameStride(frameStride_) {}

  // Frames one behind the other.
  OutputFrames(float* values_, std::ptrdiff_t width_, std::ptrdiff_t frames_)
      : OutputFrames(values_, width_, frames_, width_) {}

  // A matrix that can be written, with the values of a column one behind the other. Its shape
  // stays as it is.
  template <typename Matrix, typename Values = decltype(std::declval<Matrix&>().data()),
            std::enable_if_t<kAreFloatsInMemory<Matrix> && kHasWholeColumns<Matrix> &&
                                 std::is_convertible_v<Values, float*>,
                             int> = 0>
  OutputFrames(Eigen::DenseBase<Matrix>& matrix)  // NOLINT(google-explicit-constructor)
      : OutputFrames(matrix.derived().data(), matrix.rows(), matrix.cols(),
                     matrix.derived().colStride()) {}

  // The same of a block or a map that is made on the spot.
  template <typename Matrix,
            std::enable_if_t<std::is_constructible_v<OutputFrames, Eigen::DenseBase<Matrix>&>,
                             int> = 0>
  OutputFrames(Eigen::DenseBase<Matrix>&& matrix)  // NOLINT(google-explicit-constructor)
      : OutputFrames(matrix) {}
};

}  // namespace mlnn
