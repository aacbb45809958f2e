// Histogram — how often values fall into each of some equally wide bins.
#pragma once

#include <cstddef>
#include <vector>

namespace mlnn {

struct Histogram {
  double low = 0;   // where the first bin begins: the smallest finite value
  double high = 0;  // where the last one ends: the largest finite value
  std::vector<std::size_t> counts;
  std::size_t notFinite = 0;  // values that are NaN or infinite and fall into no bin
};

// Counts `count` values into `bins` bins. Values that are all equal fall into the middle bin of
// a range around them.
// REQUIRES: bins is not 0.
Histogram histogramOf(const float* values, std::size_t count, std::size_t bins);

}  // namespace mlnn
