// Whether results are the same to the bit. Of several NaN a sum may keep any, so a NaN is one
// whatever its sign and payload.
#pragma once

#include <Eigen/Core>
#include <cmath>
#include <cstring>

namespace mlnn::fuzz {

inline bool sameValues(const Eigen::Ref<const Eigen::MatrixXf>& a,
                       const Eigen::Ref<const Eigen::MatrixXf>& b) {
  if (a.rows() != b.rows() || a.cols() != b.cols()) return false;
  for (Eigen::Index c = 0; c < a.cols(); ++c) {
    for (Eigen::Index r = 0; r < a.rows(); ++r) {
      const float x = a(r, c);
      const float y = b(r, c);
      if (std::isnan(x) && std::isnan(y)) continue;
      if (std::memcmp(&x, &y, sizeof x) != 0) return false;
    }
  }
  return true;
}

}  // namespace mlnn::fuzz
