// fusedMultiplyAdd — a b + c, rounded once, whatever the C library makes of std::fma. Internal: not
// installed.
#pragma once

#include <cmath>
#include <cstdint>
#include <cstring>

namespace mlnn {

// The same by arithmetic in doubles. The product of two floats is exact there; the sum is rounded
// to odd, by which the second rounding, to a float, is that of the exact sum (S. Boldo, G.
// Melquiond, Emulation of a FMA and correctly rounded sums, IEEE Transactions on Computers 57,
// 2008).
inline float fusedMultiplyAddByHand(float a, float b, float c) {
  const double product = static_cast<double>(a) * b;
  const double sum = product + c;
  if (!std::isfinite(sum)) return static_cast<float>(sum);
  const double addend = sum - product;
  const double error = (product - (sum - addend)) + (c - addend);
  int64_t bits;
  std::memcpy(&bits, &sum, sizeof bits);
  if (error != 0 && bits % 2 == 0) bits += (error > 0) == (sum > 0) ? 1 : -1;
  double odd;
  std::memcpy(&odd, &bits, sizeof odd);
  return static_cast<float>(odd);
}

// mingw-w64 rounds fmaf twice, so one in five results differs in the last place.
inline float fusedMultiplyAdd(float a, float b, float c) {
#if defined(__MINGW32__)
  return fusedMultiplyAddByHand(a, b, c);
#else
  return std::fma(a, b, c);
#endif
}

}  // namespace mlnn
