#include "analysis/Histogram.h"

#include <algorithm>
#include <cmath>
#include <limits>

namespace mlnn {
namespace {

// The range of the finite values; of no width when there are none, or all are equal.
void setRange(Histogram& histogram, const float* values, std::size_t count) {
  double low = std::numeric_limits<double>::infinity();
  double high = -low;
  for (std::size_t i = 0; i < count; ++i) {
    if (!std::isfinite(values[i])) continue;
    low = std::min(low, double{values[i]});
    high = std::max(high, double{values[i]});
  }
  if (low > high) return;
  histogram.low = low;
  histogram.high = high;
}

// Equal values get a range around them that a float can tell from no range.
void widenEmptyRange(Histogram& histogram) {
  if (histogram.low < histogram.high) return;
  const double margin = std::max(std::abs(histogram.low) / 2, 0.5);
  histogram.low -= margin;
  histogram.high += margin;
}

}  // namespace

Histogram histogramOf(const float* values, std::size_t count, std::size_t bins) {
  Histogram histogram;
  histogram.counts.resize(bins);
  setRange(histogram, values, count);
  widenEmptyRange(histogram);
  const double binsPerUnit = static_cast<double>(bins) / (histogram.high - histogram.low);
  for (std::size_t i = 0; i < count; ++i) {
    if (!std::isfinite(values[i])) {
      ++histogram.notFinite;
      continue;
    }
    const auto bin = static_cast<std::size_t>((double{values[i]} - histogram.low) * binsPerUnit);
    ++histogram.counts[std::min(bin, bins - 1)];  // the largest value belongs to the last bin
  }
  return histogram;
}

}  // namespace mlnn
