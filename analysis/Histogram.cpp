#include "analysis/Histogram.h"

#include <algorithm>
#include <cmath>
#include <limits>

namespace mlnn {
namespace {

// Calls `use(first, last)` for pieces of the values, and tells the watch of each.
template <typename Use>
void inPieces(const float* values, std::size_t count, const Watch& watch, Use use) {
  constexpr std::size_t kPiece = std::size_t{1} << 20;
  for (std::size_t done = 0; done < count;) {
    const std::size_t piece = std::min(kPiece, count - done);
    use(values + done, values + done + piece);
    done += piece;
    tell(watch, piece);
  }
}

// The range of the finite values; of no width when there are none, or all are equal.
void setRange(Histogram& histogram, const float* values, std::size_t count, const Watch& watch) {
  double low = std::numeric_limits<double>::infinity();
  double high = -low;
  inPieces(values, count, watch, [&](const float* value, const float* last) {
    for (; value != last; ++value) {
      if (!std::isfinite(*value)) continue;
      low = std::min(low, double{*value});
      high = std::max(high, double{*value});
    }
  });
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

Histogram histogramOf(const float* values, std::size_t count, std::size_t bins,
                      const Watch& watch) {
  Histogram histogram;
  histogram.counts.resize(bins);
  setRange(histogram, values, count, watch);
  widenEmptyRange(histogram);
  const double binsPerUnit = static_cast<double>(bins) / (histogram.high - histogram.low);
  inPieces(values, count, watch, [&](const float* value, const float* last) {
    for (; value != last; ++value) {
      if (!std::isfinite(*value)) {
        ++histogram.notFinite;
        continue;
      }
      const auto bin = static_cast<std::size_t>((double{*value} - histogram.low) * binsPerUnit);
      ++histogram.counts[std::min(bin, bins - 1)];  // the largest value belongs to the last bin
    }
  });
  return histogram;
}

}  // namespace mlnn
