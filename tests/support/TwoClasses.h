// TwoClasses — outputs of a network that tells two classes apart.
#pragma once

#include <Eigen/Core>
#include <initializer_list>

namespace mlnn::test {

// Returns posteriors, 2 x frames: those of class 0 as given, and what is left to 1 for class 1.
inline Eigen::MatrixXf posteriorsOfTwo(std::initializer_list<float> ofClassZero) {
  Eigen::MatrixXf result(2, static_cast<Eigen::Index>(ofClassZero.size()));
  Eigen::Index frame = 0;
  for (const float value : ofClassZero) {
    result(0, frame) = value;
    result(1, frame) = 1 - value;
    ++frame;
  }
  return result;
}

}  // namespace mlnn::test
