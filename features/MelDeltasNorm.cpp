#include "features/MelDeltasNorm.h"

#include "features/EigenAssign.h"

namespace {

void fillUnlessSized(Eigen::VectorXf& values, float value) {
  if (values.size() == MelDeltasNorm::kLength) return;
  Eigen::VectorXf fresh = Eigen::VectorXf::Constant(MelDeltasNorm::kLength, value);
  values.swap(fresh);
}

}  // namespace

MelDeltasNorm::MelDeltasNorm() = default;
MelDeltasNorm::MelDeltasNorm(const MelDeltasNorm& other) = default;
MelDeltasNorm::MelDeltasNorm(MelDeltasNorm&& other) noexcept = default;
MelDeltasNorm& MelDeltasNorm::operator=(MelDeltasNorm&& other) noexcept = default;
MelDeltasNorm::~MelDeltasNorm() = default;

MelDeltasNorm& MelDeltasNorm::operator=(const MelDeltasNorm& other) {
  mlnn::assign(minvals, other.minvals);
  mlnn::assign(normvals, other.normvals);
  return *this;
}

void MelDeltasNorm::allocIfNeeded() {
  fillUnlessSized(minvals, 0.0f);
  fillUnlessSized(normvals, 1.0f);
}
