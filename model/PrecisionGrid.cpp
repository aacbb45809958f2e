#include "model/PrecisionGrid.h"

#include <cmath>
#include <cstdint>
#include <limits>

#include "os/FusedMultiplyAdd.h"

#if defined(__x86_64__) || defined(__i386__)
#include <immintrin.h>
#elif defined(__aarch64__)
#include <arm_neon.h>
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
  return fusedMultiplyAdd(grid.step, point, grid.origin);
}

// The vector paths. A smaller (larger) value replaces a lane as in the plain comparison; only
// among zeros does the order of the lanes show, so a range that ends at zero takes the sign
// of the first zero. A float of 2^24 or more is an integer already, so truncating in place
// gives the same as the way through a 64-bit integer.

// Returns the first zero with its sign; 0 where there is none any more, as when somebody else
// writes to the values meanwhile.
[[maybe_unused]] float firstZero(const float* values, std::size_t count) {
  for (std::size_t i = 0; i < count; ++i) {
    if (values[i] == 0) return values[i];
  }
  return 0.0f;
}

// Takes the lanes of a vector range, and the values that fill no vector, into `range`.
[[maybe_unused]] void includeLanes(ValueRange& range, const float* lanes, std::size_t laneCount,
                                   const float* values, std::size_t whole, std::size_t count) {
  const ValueRange before = range;
  plain::include(range, lanes, laneCount);
  plain::include(range, values + whole, count - whole);
  if (range.smallest == 0 && before.smallest != 0) range.smallest = firstZero(values, count);
  if (range.largest == 0 && before.largest != 0) range.largest = firstZero(values, count);
}

#if defined(__x86_64__) || defined(__i386__)

bool hasVectorPath() { return __builtin_cpu_supports("avx2") && __builtin_cpu_supports("fma"); }

// minps and maxps give their second operand unless the first is smaller (larger).
__attribute__((target("avx2,fma"))) void includeVectors(ValueRange& range, const float* values,
                                                        std::size_t count) {
  __m256 smallest = _mm256_set1_ps(range.smallest);
  __m256 largest = _mm256_set1_ps(range.largest);
  const std::size_t whole = count - count % 8;
  for (std::size_t i = 0; i < whole; i += 8) {
    const __m256 x = _mm256_loadu_ps(values + i);
    smallest = _mm256_min_ps(x, smallest);
    largest = _mm256_max_ps(x, largest);
  }
  float lanes[16];
  _mm256_storeu_ps(lanes, smallest);
  _mm256_storeu_ps(lanes + 8, largest);
  includeLanes(range, lanes, 16, values, whole, count);
}

__attribute__((target("avx2,fma"))) void snapVectors(const PrecisionGrid& grid, float* values,
                                                     std::size_t count) {
  const __m256 origin = _mm256_set1_ps(grid.origin);
  const __m256 scale = _mm256_set1_ps(grid.scale);
  const __m256 step = _mm256_set1_ps(grid.step);
  const __m256 limit = _mm256_set1_ps(kTwoTo64);
  const std::size_t whole = count - count % 8;
  for (std::size_t i = 0; i < whole; i += 8) {
    const __m256 difference = _mm256_sub_ps(_mm256_loadu_ps(values + i), origin);
    const __m256 position = _mm256_mul_ps(scale, difference);
    const __m256 isPositive = _mm256_cmp_ps(position, _mm256_setzero_ps(), _CMP_GT_OQ);
    const __m256 truncated = _mm256_round_ps(position, _MM_FROUND_TO_ZERO | _MM_FROUND_NO_EXC);
    const __m256 point = _mm256_min_ps(_mm256_and_ps(truncated, isPositive), limit);
    _mm256_storeu_ps(values + i, _mm256_fmadd_ps(step, point, origin));
  }
  plain::snap(grid, values + whole, count - whole);
}

#elif defined(__aarch64__)

bool hasVectorPath() { return true; }

void includeVectors(ValueRange& range, const float* values, std::size_t count) {
  float32x4_t smallest = vdupq_n_f32(range.smallest);
  float32x4_t largest = vdupq_n_f32(range.largest);
  const std::size_t whole = count - count % 4;
  for (std::size_t i = 0; i < whole; i += 4) {
    const float32x4_t x = vld1q_f32(values + i);
    smallest = vbslq_f32(vcltq_f32(x, smallest), x, smallest);
    largest = vbslq_f32(vcgtq_f32(x, largest), x, largest);
  }
  float lanes[8];
  vst1q_f32(lanes, smallest);
  vst1q_f32(lanes + 4, largest);
  includeLanes(range, lanes, 8, values, whole, count);
}

void snapVectors(const PrecisionGrid& grid, float* values, std::size_t count) {
  const float32x4_t origin = vdupq_n_f32(grid.origin);
  const float32x4_t scale = vdupq_n_f32(grid.scale);
  const float32x4_t step = vdupq_n_f32(grid.step);
  const float32x4_t limit = vdupq_n_f32(kTwoTo64);
  const float32x4_t zero = vdupq_n_f32(0);
  const std::size_t whole = count - count % 4;
  for (std::size_t i = 0; i < whole; i += 4) {
    const float32x4_t position = vmulq_f32(scale, vsubq_f32(vld1q_f32(values + i), origin));
    const float32x4_t positive = vbslq_f32(vcgtq_f32(position, zero), position, zero);
    const float32x4_t point = vminq_f32(vrndq_f32(positive), limit);
    vst1q_f32(values + i, vfmaq_f32(origin, step, point));
  }
  plain::snap(grid, values + whole, count - whole);
}

#else  // 32-bit ARM flushes denormal values in its vectors, so it takes the plain path

bool hasVectorPath() { return false; }
void includeVectors(ValueRange&, const float*, std::size_t) {}
void snapVectors(const PrecisionGrid&, float*, std::size_t) {}

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
  if (hasVectorPath()) return includeVectors(*this, values, count);
  plain::include(*this, values, count);
}

void PrecisionGrid::snap(float* values, std::size_t count) const {
  if (hasVectorPath()) return snapVectors(*this, values, count);
  plain::snap(*this, values, count);
}

}  // namespace mlnn
