// Lets a watch look while a long array is gone through.
// Internal: not installed.
#pragma once

#include <algorithm>
#include <cstddef>
#include <vector>

#include "features/Watch.h"

namespace mlnn {

// Calls work(first, count) for pieces of an array, and the watch with 0 steps after each.
template <typename Work>
void inPieces(std::size_t length, const Watch& watch, Work work) {
  constexpr std::size_t kValues = std::size_t{1} << 20;
  for (std::size_t first = 0; first < length; first += kValues) {
    work(first, std::min(kValues, length - first));
    tell(watch, 0);
  }
}

// Returns a copy of an array that is made so.
inline std::vector<float> copyInPieces(const float* values, std::size_t length,
                                       const Watch& watch) {
  std::vector<float> copy;
  copy.reserve(length);
  inPieces(length, watch, [&](std::size_t first, std::size_t count) {
    copy.insert(copy.end(), values + first, values + first + count);
  });
  return copy;
}

}  // namespace mlnn
