// Networks — what the benchmarks of the forward pass compute, how well, and how long it takes.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "bench/Contender.h"

namespace mlnn::bench {

struct Shape {
  const char* name;
  std::vector<std::size_t> widths;
};

extern const std::vector<Shape> kShapes;

// Weights as in a trained network: values stay in the range where activations are not flat.
Network makeNetwork(const Shape& shape, Hidden hidden);

// Frames of values in -1..1.
std::vector<float> makeInputs(const Network& network, std::size_t frames);

// One frame in double precision.
std::vector<double> exactOutputs(const Network& network, const float* x);

// The largest error of a frame relative to its largest output.
double errorOf(const std::vector<double>& exact, const float* found);

// Times so many runs. A first one is not timed: it brings the contender's weights back into the
// caches.
double secondsOf(Contender& contender, const float* x, float* y, std::size_t repeats);

double medianOf(std::vector<double> values);

}  // namespace mlnn::bench
