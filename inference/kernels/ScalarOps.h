// ScalarOps — the operations of ActivationFormulas on single floats.
#pragma once

#include <cmath>
#include <cstdint>
#include <cstring>

#include "os/FusedMultiplyAdd.h"

namespace mlnn {

struct ScalarOps {
  using Value = float;
  static constexpr bool kScales = false;

  static float constant(float value) { return value; }
  static float fma(float a, float b, float c) { return fusedMultiplyAdd(a, b, c); }
  static float add(float a, float b) { return a + b; }
  static float sub(float a, float b) { return a - b; }
  static float mul(float a, float b) { return a * b; }
  static float div(float a, float b) { return a / b; }
  static float abs(float a) { return std::fabs(a); }
  static float copySign(float magnitude, float sign) { return std::copysign(magnitude, sign); }
  static float lessThan(float a, float b, float ifTrue, float ifFalse) {
    return a < b ? ifTrue : ifFalse;
  }
  static float atLeast(float limit, float a) { return a < limit ? limit : a; }

  // A value that is not a number has no power; what it gives is multiplied by it anyway.
  static float powerOfTwo(float n) {
    const auto exponent = n == n ? static_cast<int32_t>(n) : 0;
    const uint32_t bits = static_cast<uint32_t>(exponent + 127) << 23;
    float power;
    std::memcpy(&power, &bits, sizeof power);
    return power;
  }
};

}  // namespace mlnn
