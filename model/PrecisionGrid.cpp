#include "model/PrecisionGrid.h"

#include <cmath>
#include <cstdint>
#include <limits>

#if defined(__x86_64__) || defined(__i386__)
#define MLNN_HAS_AVX2_PATH 1
#include <immintrin.h>
#endif

namespace mlnn {
namespace {

constexpr float kTwoTo64 = 18446744073709551616.0f;

// Truncates toward zero; saturates, and gives 0 for NaN and for what is not positive.
uint64_t toUint64(float value) {
  if (!(value > 0)) return 0;
  if (value >= kTwoTo64) return std::numeric_limits<uint64_t>::max();
  return static_cast<uint64_t>(value);
}

float snapped(const PrecisionGrid& grid, float value) {
  const float difference = value - grid.origin;
  const float position = grid.scale * difference;
  const auto point = static_cast<float>(toUint64(position));
  return std::fma(grid.step, point, grid.origin);
}

#ifdef MLNN_HAS_AVX2_PATH

constexpr std::size_t kLanes = 8;

bool hasAvx2AndFma() { return __builtin_cpu_supports("avx2") && __builtin_cpu_supports("fma"); }

// Returns the first zero among the values, whose sign is the one that counts.
float firstZero(const float* values) {
  while (*values != 0) ++values;
  return *values;
}

// minps and maxps give their second operand unless the first is smaller (larger), which is
// the plain comparison lane by lane. Only among zeros does the order of the lanes show.
__attribute__((target("avx2,fma"))) void includeAvx2(ValueRange& range, const float* values,
                                                     std::size_t count) {
  const ValueRange before = range;
  __m256 smallest = _mm256_set1_ps(range.smallest);
  __m256 largest = _mm256_set1_ps(range.largest);
  const std::size_t whole = count - count % kLanes;
  for (std::size_t i = 0; i < whole; i += kLanes) {
    const __m256 x = _mm256_loadu_ps(values + i);
    smallest = _mm256_min_ps(x, smallest);
    largest = _mm256_max_ps(x, largest);
  }
  float lanes[2 * kLanes];
  _mm256_storeu_ps(lanes, smallest);
  _mm256_storeu_ps(lanes + kLanes, largest);
  plain::include(range, lanes, 2 * kLanes);
  plain::include(range, values + whole, count - whole);
  if (range.smallest == 0 && before.smallest != 0) range.smallest = firstZero(values);
  if (range.largest == 0 && before.largest != 0) range.largest = firstZero(values);
}

// A float of 2^24 or more is an integer already, so truncating in place gives the same as
// the way through a 64-bit integer.
__attribute__((target("avx2,fma"))) void snapAvx2(const PrecisionGrid& grid, float* values,
                                                  std::size_t count) {
  const __m256 origin = _mm256_set1_ps(grid.origin);
  const __m256 scale = _mm256_set1_ps(grid.scale);
  const __m256 step = _mm256_set1_ps(grid.step);
  const __m256 limit = _mm256_set1_ps(kTwoTo64);
  const std::size_t whole = count - count % kLanes;
  for (std::size_t i = 0; i < whole; i += kLanes) {
    const __m256 difference = _mm256_sub_ps(_mm256_loadu_ps(values + i), origin);
    const __m256 position = _mm256_mul_ps(scale, difference);
    const __m256 isPositive = _mm256_cmp_ps(position, _mm256_setzero_ps(), _CMP_GT_OQ);
    const __m256 truncated = _mm256_round_ps(position, _MM_FROUND_TO_ZERO | _MM_FROUND_NO_EXC);
    const __m256 point = _mm256_min_ps(_mm256_and_ps(truncated, isPositive), limit);
    _mm256_storeu_ps(values + i, _mm256_fmadd_ps(step, point, origin));
  }
  plain::snap(grid, values + whole, count - whole);
}

#endif

}  // namespace

int gridSteps(int bits) { return static_cast<int32_t>(uint32_t{1} << bits); }

// The step count is widened with its sign, so 31 bits give nearly 2^64 levels.
PrecisionGrid::PrecisionGrid(const ValueRange& range, int bits) : origin(range.smallest) {
  const auto levels = static_cast<float>(static_cast<uint64_t>(int64_t{gridSteps(bits)}));
  scale = levels / range.width();
  step = range.width() / levels;
}

void plain::include(ValueRange& range, const float* values, std::size_t count) {
  for (std::size_t i = 0; i < count; ++i) {
    if (values[i] < range.smallest) range.smallest = values[i];
    if (values[i] > range.largest) range.largest = values[i];
  }
}

void plain::snap(const PrecisionGrid& grid, float* values, std::size_t count) {
  for (std::size_t i = 0; i < count; ++i) values[i] = snapped(grid, values[i]);
}

void ValueRange::include(const float* values, std::size_t count) {
#ifdef MLNN_HAS_AVX2_PATH
  if (hasAvx2AndFma()) return includeAvx2(*this, values, count);
#endif
  plain::include(*this, values, count);
}

void PrecisionGrid::snap(float* values, std::size_t count) const {
#ifdef MLNN_HAS_AVX2_PATH
  if (hasAvx2AndFma()) return snapAvx2(*this, values, count);
#endif
  plain::snap(*this, values, count);
}

}  // namespace mlnn
