#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <random>

#include "os/FusedMultiplyAdd.h"

namespace mlnn {
namespace {

uint32_t bitsOf(float value) {
  uint32_t bits;
  std::memcpy(&bits, &value, sizeof bits);
  return bits;
}

TEST(FusedMultiplyAdd, roundsOnce) {
  // By two roundings, to a double and to a float, each of these comes out one unit away.
  EXPECT_EQ(0x1.1fce86p+1f, fusedMultiplyAdd(0x1.e0a78p-1f, 0x1.47012p+0f, 0x1.0ca102p+0f));
  EXPECT_EQ(0x1.ede28ep+49f, fusedMultiplyAdd(0x1.5d7f98p-32f, 0x1.9c3c8ep+71f, 0x1.ed55dap+49f));
  EXPECT_EQ(0x1.c25a64p+77f, fusedMultiplyAdd(0x1.adf716p-23f, 0x1.0c41f8p+100f, -0x1.989bd4p+66f));
}

TEST(FusedMultiplyAdd, byHandTellsOnWhichSideOfAHalfTheSumLies) {
  // (1 + 2^-12)^2 and (1 + 2^-12) (1 + 3 2^-12) are half way between two floats; 2^-80, far beyond
  // the digits of a double, decides.
  EXPECT_EQ(0x1.002p+0f, fusedMultiplyAddByHand(0x1.001p+0f, 0x1.001p+0f, 0.0f));
  EXPECT_EQ(0x1.002002p+0f, fusedMultiplyAddByHand(0x1.001p+0f, 0x1.001p+0f, 0x1p-80f));
  EXPECT_EQ(0x1.004004p+0f, fusedMultiplyAddByHand(0x1.001p+0f, 0x1.003p+0f, 0.0f));
  EXPECT_EQ(0x1.004002p+0f, fusedMultiplyAddByHand(0x1.001p+0f, 0x1.003p+0f, -0x1p-80f));
}

TEST(FusedMultiplyAdd, byHandKeepsWhatIsNotFiniteAndTheSignsOfZero) {
  const float infinity = std::numeric_limits<float>::infinity();
  EXPECT_EQ(infinity, fusedMultiplyAddByHand(0x1p+100f, 0x1p+100f, -1.0f));
  EXPECT_EQ(-infinity, fusedMultiplyAddByHand(2.0f, -infinity, 1.0f));
  EXPECT_TRUE(std::isnan(fusedMultiplyAddByHand(0.0f, infinity, 1.0f)));
  EXPECT_TRUE(std::isnan(fusedMultiplyAddByHand(1.0f, infinity, -infinity)));
  EXPECT_EQ(bitsOf(-0.0f), bitsOf(fusedMultiplyAddByHand(-0.0f, 1.0f, -0.0f)));
  EXPECT_EQ(bitsOf(0.0f), bitsOf(fusedMultiplyAddByHand(1.0f, -1.0f, 1.0f)));
}

#if !defined(__MINGW32__)
float ofBits(uint32_t bits) {
  float value;
  std::memcpy(&value, &bits, sizeof value);
  return value;
}

void expectTheSame(float a, float b, float c) {
  const float expected = std::fma(a, b, c);
  const float found = fusedMultiplyAddByHand(a, b, c);
  if (std::isnan(expected) && std::isnan(found)) return;
  ASSERT_EQ(bitsOf(expected), bitsOf(found)) << std::hexfloat << a << " " << b << " " << c;
}

TEST(FusedMultiplyAdd, byHandGivesTheBitsOfTheLibrary) {
  std::mt19937 random(1);
  for (int i = 0; i < 200000; ++i) {
    const auto a = static_cast<uint32_t>(random()), b = static_cast<uint32_t>(random()),
               c = static_cast<uint32_t>(random());
    expectTheSame(ofBits(a), ofBits(b), ofBits(c));
    // Of about the same size, where the sum has to be rounded.
    const auto near = [](uint32_t bits) { return ofBits((bits & 0x80ffffffu) | 0x3f000000u); };
    expectTheSame(near(a), near(b), near(c));
    expectTheSame(near(a) * 0x1p-70f, near(b) * 0x1p-70f,
                  near(c) * 0x1p-126f);  // below the normal ones
  }
}
#endif

}  // namespace
}  // namespace mlnn
