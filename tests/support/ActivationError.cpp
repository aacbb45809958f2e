#include "tests/support/ActivationError.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>

#include "tests/support/ReferencePass.h"

namespace mlnn::test {
namespace {

constexpr uint64_t kFloats = uint64_t{1} << 32;
constexpr std::size_t kChunk = 1000;

float floatOf(uint32_t bits) {
  float value;
  std::memcpy(&value, &bits, sizeof value);
  return value;
}

bool sameBits(float a, float b) {
  return std::memcmp(&a, &b, sizeof a) == 0 || (std::isnan(a) && std::isnan(b));
}

// The textbook formulas lose digits, or are infinite, where these are meant.
double trueValue(ActFn::ActFn fn, double x) {
  if (fn == ActFn::silu && std::isinf(x) && x < 0) return 0;
  if (fn == ActFn::leaky_relu && x < 0) return double{0.01f} * x;
  return referenceActivation(fn, x);
}

// The distance of two neighbouring floats at this size.
double unitAt(double value) {
  int exponent;
  std::frexp(value, &exponent);
  return std::ldexp(1.0, std::max(exponent - 24, -149));
}

void look(float x, float y, ActFn::ActFn fn, ActivationError& error) {
  if (!sameBits(y, activated(fn, x))) ++error.disagreements;
  if (std::isnan(x) != std::isnan(y)) ++error.lostNaNs;
  const double expected = trueValue(fn, double{x});
  if (std::isnan(x) || std::isnan(y) || double{y} == expected) return;
  const double units = std::abs(double{y} - expected) / unitAt(expected);
  if (units <= error.units) return;
  error.units = units;
  error.at = x;
}

}  // namespace

ActivationError worstError(const Kernels& kernels, ActFn::ActFn fn, uint64_t first,
                           uint64_t stride) {
  ActivationError error;
  for (uint64_t bits = first; bits < kFloats;) {
    std::array<float, kChunk> x{};
    std::size_t count = 0;
    for (; count < kChunk && bits < kFloats; bits += stride) {
      x[count++] = floatOf(static_cast<uint32_t>(bits));
    }
    std::array<float, kChunk> y = x;
    kernels.activate(fn, y.data(), count);
    for (std::size_t i = 0; i < count; ++i) look(x[i], y[i], fn, error);
  }
  return error;
}

}  // namespace mlnn::test
