#include "analysis/UnitActivity.h"

#include <cmath>
#include <optional>

#include "layers/ActFn.h"

namespace mlnn {
namespace {

using Eigen::Index;

// The values that an activation comes close to at both ends.
struct Ends {
  float low;
  float high;
};

std::optional<Ends> endsOf(ActFn::ActFn actFn) {
  if (actFn == ActFn::sigmoid) return Ends{0, 1};
  if (actFn == ActFn::tanh) return Ends{-1, 1};
  return std::nullopt;
}

// What is not a number stays at both ends.
void widen(float& smallest, float& largest, float value) {
  if (std::isnan(value) || value < smallest) smallest = value;
  if (std::isnan(value) || value > largest) largest = value;
}

bool isSaturated(float smallest, float largest, const std::optional<Ends>& ends) {
  if (!ends) return false;
  const float near = (ends->high - ends->low) / 100;
  return largest <= ends->low + near || smallest >= ends->high - near;
}

}  // namespace

void UnitActivity::add(const std::vector<LayerResult>& layers) {
  if (layers.empty() || layers.front().activated.cols() == 0) return;
  const bool isFirst = frames_ == 0;
  if (isFirst) ranges_.resize(layers.size());
  for (std::size_t i = 0; i < layers.size(); ++i) {
    const Eigen::MatrixXf& values = layers[i].activated;
    Range& range = ranges_[i];
    if (isFirst) range.smallest = range.largest = values.col(0);
    for (Index f = 0; f < values.cols(); ++f) {
      for (Index unit = 0; unit < values.rows(); ++unit) {
        widen(range.smallest[unit], range.largest[unit], values(unit, f));
      }
    }
  }
  frames_ += static_cast<std::size_t>(layers.front().activated.cols());
}

std::vector<LayerActivity> UnitActivity::layers() const {
  std::vector<LayerActivity> activities;
  if (frames_ < 2) return activities;
  for (std::size_t i = 0; i < ranges_.size(); ++i) {
    const Range& range = ranges_[i];
    const std::optional<Ends> ends = endsOf(model_.layers[i]->actFn);
    LayerActivity activity;
    activity.units = static_cast<std::size_t>(range.smallest.size());
    for (Index unit = 0; unit < range.smallest.size(); ++unit) {
      if (range.smallest[unit] == range.largest[unit]) {
        activity.dead.push_back(unit);
      } else if (isSaturated(range.smallest[unit], range.largest[unit], ends)) {
        activity.saturated.push_back(unit);
      }
    }
    if (activity.units > 0) {
      activity.smallest = static_cast<double>(range.smallest.minCoeff<Eigen::PropagateNaN>());
      activity.largest = static_cast<double>(range.largest.maxCoeff<Eigen::PropagateNaN>());
    }
    activities.push_back(std::move(activity));
  }
  return activities;
}

}  // namespace mlnn
