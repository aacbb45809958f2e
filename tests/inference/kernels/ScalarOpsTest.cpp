#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "inference/kernels/ScalarOps.h"

namespace {

using Ops = mlnn::ScalarOps;

constexpr float kNaN = std::numeric_limits<float>::quiet_NaN();

TEST(ScalarOps, raiseTwoToWholePowers) {
  for (int n = -126; n <= 127; ++n) {
    EXPECT_EQ(Ops::powerOfTwo(static_cast<float>(n)), std::ldexp(1.0f, n)) << n;
  }
  EXPECT_EQ(Ops::powerOfTwo(-127), 0);
  EXPECT_EQ(Ops::powerOfTwo(128), std::numeric_limits<float>::infinity());
  EXPECT_EQ(Ops::powerOfTwo(kNaN), 1);
}

TEST(ScalarOps, chooseAsVectorsDo) {
  EXPECT_EQ(Ops::lessThan(1, 2, 3, 4), 3);
  EXPECT_EQ(Ops::lessThan(2, 2, 3, 4), 4);
  EXPECT_EQ(Ops::lessThan(kNaN, 2, 3, 4), 4);
  EXPECT_EQ(Ops::atLeast(0, -1), 0);
  EXPECT_EQ(Ops::atLeast(0, 2), 2);
  EXPECT_TRUE(std::isnan(Ops::atLeast(0, kNaN)));
  EXPECT_TRUE(std::signbit(Ops::atLeast(0, -0.0f)));
}

TEST(ScalarOps, roundOnceInAFusedProduct) {
  const float a = 1 + std::ldexp(1.0f, -23);
  EXPECT_EQ(Ops::fma(a, a, -1), std::ldexp(1.0f, -22) + std::ldexp(1.0f, -46));
  EXPECT_EQ(Ops::sub(Ops::mul(a, a), 1), std::ldexp(1.0f, -22));
}

}  // namespace
