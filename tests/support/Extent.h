// Extent — how much the tests that try very many things try.
#pragma once

#include <cstddef>
#include <vector>

namespace mlnn::test {

// Whether to try everything, in minutes or hours: where the environment sets MLNN_EXHAUSTIVE.
bool triesEverything();

// Whether a sample is enough, since another build tries all: where MLNN_TEST_SAMPLE is set in
// CMake, as the presets of the other compiler, the sanitizers and 32 bits do, and not everything
// is tried.
bool triesSample();

// Returns all of them; where a sample is enough, each `step`-th from the `first` on.
template <typename T>
std::vector<T> someOf(std::vector<T> all, std::size_t step, std::size_t first = 0) {
  if (!triesSample()) return all;
  std::vector<T> some;
  for (std::size_t i = first; i < all.size(); i += step) some.push_back(all[i]);
  return some;
}

}  // namespace mlnn::test
