#include "analysis/ValueStatistics.h"

#include <algorithm>
#include <cmath>
#include <vector>

#include "layers/FilledColumns.h"

namespace mlnn {
namespace {

using Eigen::Index;

constexpr Index kColumnsBetweenCalls = 64;

// Sums of one column, which are added up column by column: the sums of few values lose little.
struct Sums {
  double values = 0;
  double squares = 0;
};

void take(float number, ValueStatistics& statistics, Sums& sums) {
  if (!std::isfinite(number)) {
    ++statistics.notFinite;
    return;
  }
  const double value = static_cast<double>(number);
  if (value == 0) ++statistics.zeros;
  statistics.smallest = std::min(statistics.smallest, value);
  statistics.largest = std::max(statistics.largest, value);
  sums.values += value;
  sums.squares += value * value;
}

}  // namespace

double ValueStatistics::rootMeanSquare() const {
  return finite() == 0 ? 0 : norm / std::sqrt(static_cast<double>(finite()));
}

ValueStatistics statisticsOf(const Eigen::Ref<const Eigen::MatrixXf>& values, const Watch& watch) {
  ValueStatistics statistics;
  statistics.count = static_cast<std::size_t>(values.size());
  statistics.smallest = HUGE_VAL;
  statistics.largest = -HUGE_VAL;
  Sums all;
  for (Index c = 0; c < filledColumns(values); ++c) {
    if (c % kColumnsBetweenCalls == 0) tell(watch, 0);
    Sums column;
    for (Index r = 0; r < values.rows(); ++r) take(values(r, c), statistics, column);
    all.values += column.values;
    all.squares += column.squares;
  }
  if (statistics.finite() == 0) {
    statistics.smallest = statistics.largest = 0;
    return statistics;
  }
  const auto count = static_cast<double>(statistics.finite());
  statistics.mean = all.values / count;
  statistics.norm = std::sqrt(all.squares);
  const double variance = all.squares / count - statistics.mean * statistics.mean;
  statistics.deviation = std::sqrt(std::max(variance, 0.0));
  return statistics;
}

RowNorms rowNormsOf(const Eigen::Ref<const Eigen::MatrixXf>& values, const Watch& watch) {
  if (values.size() == 0) return {};
  std::vector<double> norms(static_cast<std::size_t>(values.rows()), 0);
  for (Index c = 0; c < values.cols(); ++c) {
    if (c % kColumnsBetweenCalls == 0) tell(watch, 0);
    for (Index r = 0; r < values.rows(); ++r) {
      const double value = static_cast<double>(values(r, c));
      norms[static_cast<std::size_t>(r)] += value * value;
    }
  }
  norms.erase(std::remove_if(norms.begin(), norms.end(),
                             [](double squares) { return !std::isfinite(squares); }),
              norms.end());
  if (norms.empty()) return {};
  for (double& norm : norms) norm = std::sqrt(norm);
  std::sort(norms.begin(), norms.end());
  const auto zeros = std::upper_bound(norms.begin(), norms.end(), 0.0) - norms.begin();
  return {norms.front(), norms[norms.size() / 2], norms.back(), static_cast<std::size_t>(zeros)};
}

}  // namespace mlnn
