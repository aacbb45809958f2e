// What this processor can do at best. Compiled for it.
#include <time.h>

#include <algorithm>

#include "bench/Contender.h"

namespace mlnn::bench {
namespace {

// What fills a register of this processor.
typedef float Vector __attribute__((vector_size(__BIGGEST_ALIGNMENT__)));

// Adds up all values, with enough sums at once to wait for memory only.
float readAll(const std::vector<Vector>& values) {
  Vector sums[8] = {};
  for (std::size_t i = 0; i + 8 <= values.size(); i += 8) {
    for (std::size_t j = 0; j < 8; ++j) sums[j] += values[i + j];
  }
  float total = 0;
  for (const Vector& sum : sums) total += sum[0];
  return total;
}

template <typename Work>
double bestSeconds(const Work& work) {
  double best = 1e9;
  for (int round = 0; round < 7; ++round) {
    const double start = secondsOfThisThread();
    work();
    best = std::min(best, secondsOfThisThread() - start);
  }
  return best;
}

volatile float sink;

}  // namespace

double secondsOfThisThread() {
  timespec now;
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
  return static_cast<double>(now.tv_sec) + 1e-9 * static_cast<double>(now.tv_nsec);
}

double readBytesPerSecond(std::size_t bytes) {
  const std::vector<Vector> values(std::max<std::size_t>(bytes / sizeof(Vector), 8));
  const std::size_t repeats = std::max<std::size_t>(1, (std::size_t{32} << 20) / bytes);
  const double seconds = bestSeconds([&] {
    for (std::size_t i = 0; i < repeats; ++i) sink = readAll(values);
  });
  return static_cast<double>(values.size() * sizeof(Vector) * repeats) / seconds;
}

double multiplyAddFlopsPerSecond() {
  constexpr int kChains = 12;
  constexpr int kSteps = 1 << 20;
  Vector sums[kChains] = {};
  Vector a = {};
  a += 0.5f;
  const double seconds = bestSeconds([&] {
    for (int i = 0; i < kSteps; ++i) {
#pragma GCC unroll 12
      for (int j = 0; j < kChains; ++j) sums[j] = sums[j] * a + a;
      asm volatile("" : "+m"(a));  // keeps the steps apart, which are all the same
    }
  });
  for (const Vector& sum : sums) sink = sum[0];
  return 2.0 * (sizeof(Vector) / sizeof(float)) * kChains * kSteps / seconds;
}

}  // namespace mlnn::bench
