// Histogram — how often values fall into each of some equally wide bins.
#pragma once

#include <cstddef>
#include <vector>

#include "features/Export.h"
#include "features/Watch.h"

namespace mlnn {

struct Histogram {
  double low = 0;                   // where the first bin begins: the smallest finite value
  double high = 0;                  // where the last one ends: the largest finite value
  std::vector<std::size_t> counts;  // of each bin, from the first
  std::size_t notFinite = 0;        // values that are NaN or infinite and fall into no bin
};

// Counts `count` values into `bins` bins. Values that are all equal fall into the middle bin of
// a range around them.
// `watch` is told of values, each of which is looked at twice.
// REQUIRES: bins is not 0.
MLNN_EXPORT Histogram histogramOf(const float* values, std::size_t count, std::size_t bins,
                                  const Watch& watch = {});

}  // namespace mlnn
