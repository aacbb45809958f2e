// assign — copies an Eigen array so that running out of memory leaves the target whole.
#pragma once

#include <Eigen/Core>

namespace mlnn {

// Makes `target` equal to `source`, shape and values. Where the shapes agree the
// values are copied in place and nothing is allocated.
//
// Eigen's own resize frees the old array before it asks for the new one, so when
// that fails the target points at freed memory. Here the new array is made first.
// On std::bad_alloc: `target` is unchanged.
template <typename Dense>
void assign(Dense& target, const Dense& source) {
  if (target.rows() == source.rows() && target.cols() == source.cols()) {
    target = source;
    return;
  }
  Dense fresh(source);
  target.swap(fresh);
}

// Gives `target` the shape rows x cols; values are unspecified. The same guarantee as above.
template <typename Dense>
void reshape(Dense& target, Eigen::Index rows, Eigen::Index cols) {
  if (target.rows() == rows && target.cols() == cols) return;
  Dense fresh(rows, cols);
  target.swap(fresh);
}

// Makes `target` rows x cols of zeros, with the same guarantee as above.
template <typename Dense>
void assignZeros(Dense& target, Eigen::Index rows, Eigen::Index cols = 1) {
  Dense fresh = Dense::Zero(rows, cols);
  target.swap(fresh);
}

}  // namespace mlnn
