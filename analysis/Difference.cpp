#include "analysis/Difference.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>

#include "layers/FilledColumns.h"

namespace mlnn {
namespace {

// Even a column of the longest layers takes no more than some hundred microseconds.
constexpr Eigen::Index kColumnsBetweenCalls = 64;

bool isSame(float a, float b) { return a == b || (std::isnan(a) && std::isnan(b)); }

// The place of a float that is a number among all of them in ascending order, 0 and -0 at 0.
int64_t rankOf(float value) {
  uint32_t bits;
  std::memcpy(&bits, &value, sizeof bits);
  const int64_t magnitude = bits & 0x7FFFFFFFu;
  return std::signbit(value) ? -magnitude : magnitude;
}

}  // namespace

double absoluteDifference(float a, float b) {
  if (isSame(a, b)) return 0;
  const double difference = std::abs(double{a} - double{b});
  return std::isnan(difference) ? std::numeric_limits<double>::infinity() : difference;
}

uint32_t ulpDistance(float a, float b) {
  if (isSame(a, b)) return 0;
  if (std::isnan(a) || std::isnan(b)) return std::numeric_limits<uint32_t>::max();
  return static_cast<uint32_t>(std::abs(rankOf(a) - rankOf(b)));
}

void Difference::add(const Eigen::Ref<const Eigen::MatrixXf>& a,
                     const Eigen::Ref<const Eigen::MatrixXf>& b, const Watch& watch) {
  for (Eigen::Index c = 0; c < filledColumns(a); ++c) {
    if (c % kColumnsBetweenCalls == 0) tell(watch, 0);
    for (Eigen::Index r = 0; r < a.rows(); ++r) addValues(a(r, c), b(r, c), {pairs_, r, c});
  }
  ++pairs_;
}

void Difference::addValues(float a, float b, Place place) {
  const double difference = absoluteDifference(a, b);
  ++count_;
  if (!isSame(a, b)) ++differing_;
  if (difference > largest_) {
    largest_ = difference;
    place_ = place;
  }
  largestUlps_ = std::max(largestUlps_, ulpDistance(a, b));
  sum_ += difference;
  squares_ += difference * difference;
  aa_ += double{a} * a;
  bb_ += double{b} * b;
  ab_ += double{a} * b;
}

double Difference::mean() const { return count_ == 0 ? 0 : sum_ / static_cast<double>(count_); }

double Difference::rootMeanSquare() const {
  return count_ == 0 ? 0 : std::sqrt(squares_ / static_cast<double>(count_));
}

double Difference::cosine() const {
  if (!std::isfinite(aa_) || !std::isfinite(bb_)) return std::numeric_limits<double>::quiet_NaN();
  if (aa_ == 0 && bb_ == 0) return 1;
  if (aa_ == 0 || bb_ == 0) return 0;
  return std::clamp(ab_ / std::sqrt(aa_ * bb_), -1.0, 1.0);
}

}  // namespace mlnn
