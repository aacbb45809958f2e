#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <functional>
#include <limits>
#include <random>
#include <vector>

#include "model/PrecisionGrid.h"

namespace {

using mlnn::PrecisionGrid;
using mlnn::ValueRange;

constexpr float kInfinity = std::numeric_limits<float>::infinity();
constexpr float kNaN = std::numeric_limits<float>::quiet_NaN();
constexpr float kMax = std::numeric_limits<float>::max();
constexpr float kDenormal = std::numeric_limits<float>::denorm_min();

uint32_t bitsOf(float value) {
  uint32_t bits;
  std::memcpy(&bits, &value, sizeof bits);
  return bits;
}

float floatOf(uint32_t bits) {
  float value;
  std::memcpy(&value, &bits, sizeof value);
  return value;
}

void expectSameBits(const std::vector<float>& expected, const std::vector<float>& found) {
  ASSERT_EQ(expected.size(), found.size());
  for (std::size_t i = 0; i < expected.size(); ++i) {
    const bool bothNaN = std::isnan(expected[i]) && std::isnan(found[i]);
    ASSERT_TRUE(bothNaN || bitsOf(expected[i]) == bitsOf(found[i]))
        << "at " << i << ": " << expected[i] << " != " << found[i];
  }
}

ValueRange plainRange(const std::vector<float>& values) {
  ValueRange range{values[0], values[0]};
  mlnn::plain::include(range, values.data(), values.size());
  return range;
}

ValueRange fastRange(const std::vector<float>& values) {
  ValueRange range{values[0], values[0]};
  range.include(values.data(), values.size());
  return range;
}

// Runs both paths over the values, their tails and unaligned starts, for every number of bits.
void expectPathsAgree(const std::vector<float>& values) {
  for (const std::size_t skip : {0u, 1u, 3u, 8u}) {
    if (skip >= values.size()) continue;
    const std::vector<float> part(values.begin() + static_cast<std::ptrdiff_t>(skip), values.end());
    const ValueRange range = plainRange(part);
    const ValueRange fast = fastRange(part);
    expectSameBits({range.smallest, range.largest}, {fast.smallest, fast.largest});
    for (int bits = 0; bits <= 31; ++bits) {
      const PrecisionGrid grid(range, bits);
      std::vector<float> expected = values;
      std::vector<float> found = values;
      mlnn::plain::snap(grid, expected.data() + skip, expected.size() - skip);
      grid.snap(found.data() + skip, found.size() - skip);
      expectSameBits(expected, found);
    }
  }
}

std::vector<float> generated(std::size_t count, const std::function<float(std::mt19937&)>& next) {
  std::mt19937 random(1);
  std::vector<float> values(count);
  for (float& value : values) value = next(random);
  return values;
}

TEST(PrecisionGridRange, comparesInOrderAndSkipsNaN) {
  const ValueRange range = plainRange({1.0f, kNaN, -2.0f, 5.0f, kNaN});
  EXPECT_EQ(range.smallest, -2.0f);
  EXPECT_EQ(range.largest, 5.0f);
}

TEST(PrecisionGridRange, thatStartsAtNaNKeepsIt) {
  for (const ValueRange& range : {plainRange({kNaN, 1.0f}), fastRange({kNaN, 1.0f})}) {
    EXPECT_TRUE(std::isnan(range.smallest));
    EXPECT_TRUE(std::isnan(range.largest));
  }
}

TEST(PrecisionGridRange, keepsTheFirstOfTwoZeros) {
  // Each zero stands in every lane of a vector once, behind or before its counterpart.
  for (std::size_t lane = 1; lane < 32; ++lane) {
    for (const float outer : {1.0f, -1.0f}) {
      std::vector<float> values(40, outer);
      values[lane] = -0.0f;
      values[(lane * 7) % 40 == lane ? lane + 1 : (lane * 7) % 40] = 0.0f;
      const ValueRange expected = plainRange(values);
      const ValueRange found = fastRange(values);
      expectSameBits({expected.smallest, expected.largest}, {found.smallest, found.largest});
    }
  }
}

TEST(PrecisionGrid, hasTwoToTheBitsSteps) {
  const PrecisionGrid grid({-1.0f, 1.0f}, 8);
  EXPECT_EQ(grid.origin, -1.0f);
  EXPECT_EQ(grid.scale, 128.0f);
  EXPECT_EQ(grid.step, 0.0078125f);
}

TEST(PrecisionGrid, with31BitsTakesTheSignAlong) {
  EXPECT_EQ(mlnn::gridSteps(31), std::numeric_limits<int32_t>::min());
  EXPECT_EQ(mlnn::gridSteps(30), 1 << 30);
  const PrecisionGrid grid({0.0f, 1.0f}, 31);
  EXPECT_EQ(grid.scale, 18446744073709551616.0f);
}

TEST(PrecisionGrid, roundsDownToTheGridPoint) {
  std::vector<float> values = {-1.0f, -0.9922f, -0.9921875f, 0.003f, 0.999f, 1.0f};
  PrecisionGrid({-1.0f, 1.0f}, 8).snap(values.data(), values.size());
  expectSameBits({-1.0f, -1.0f, -0.9921875f, 0.0f, 0.9921875f, 1.0f}, values);
}

TEST(PrecisionGrid, truncationSaturatesAndTakesNaNAsZero) {
  // With scale 2^64 the largest value lies at 2^64 exactly, which no 64-bit integer holds.
  std::vector<float> values = {0.0f, 1.0f, 2.0f, kInfinity, -1.0f, kNaN};
  mlnn::plain::snap(PrecisionGrid({0.0f, 1.0f}, 31), values.data(), values.size());
  expectSameBits({0.0f, 1.0f, 1.0f, 1.0f, 0.0f, 0.0f}, values);
}

TEST(PrecisionGrid, lastStepHasOneRounding) {
  // step * q alone does not fit a float here, so two roundings give another result.
  const float origin = floatOf(0xBE99999A);  // -0.3
  const PrecisionGrid grid({origin, 0.7000001f}, 20);
  const float value = 0.31234567f;
  const auto q = static_cast<float>(static_cast<uint64_t>(grid.scale * (value - origin)));
  std::vector<float> snapped(9, value);
  grid.snap(snapped.data(), snapped.size());
  const double exact = double{grid.step} * double{q} + double{origin};  // the product is exact
  for (const float result : snapped) EXPECT_EQ(result, static_cast<float>(exact));
}

TEST(PrecisionGridPaths, agreeOnRandomValues) {
  expectPathsAgree(generated(1003, [](std::mt19937& random) {
    return std::normal_distribution<float>(0.1f, 2.0f)(random);
  }));
}

TEST(PrecisionGridPaths, agreeOnAnyBits) {
  expectPathsAgree(
      generated(1003, [](std::mt19937& random) { return floatOf(uint32_t(random())); }));
}

TEST(PrecisionGridPaths, agreeOnDenormalValues) {
  expectPathsAgree(generated(
      1003, [](std::mt19937& random) { return floatOf(uint32_t(random()) & 0x807FFFFFu); }));
  expectPathsAgree({kDenormal, 2 * kDenormal, -kDenormal, 0.0f, -0.0f, kDenormal, 5 * kDenormal,
                    kDenormal, -3 * kDenormal});
}

TEST(PrecisionGridPaths, agreeOnHugeValues) {
  expectPathsAgree(generated(1003, [](std::mt19937& random) {
    return std::uniform_real_distribution<float>(-1.0f, 1.0f)(random) * kMax;
  }));
  expectPathsAgree({kMax, -kMax, 0.0f, 1.0f, -1.0f, kMax, kMax, kMax, -kMax});
}

TEST(PrecisionGridPaths, agreeOnEqualValues) {
  for (const float value : {0.0f, -0.0f, 1.0f, -3.7f, kMax, kDenormal, kInfinity, kNaN}) {
    expectPathsAgree(std::vector<float>(37, value));
  }
}

TEST(PrecisionGridPaths, agreeOnNaNAndInfiniteValues) {
  for (const float special : {kNaN, kInfinity, -kInfinity}) {
    for (std::size_t i = 0; i < 17; ++i) {
      std::vector<float> values = generated(17, [](std::mt19937& random) {
        return std::uniform_real_distribution<float>(-2.0f, 2.0f)(random);
      });
      values[i] = special;
      expectPathsAgree(values);
    }
  }
  expectPathsAgree({kInfinity, -kInfinity, kNaN, 0.0f, 1.0f, -1.0f, kMax, -kMax, kDenormal});
}

TEST(PrecisionGridPaths, agreeOnEveryLength) {
  for (std::size_t count = 1; count < 40; ++count) {
    expectPathsAgree(generated(count, [](std::mt19937& random) {
      return std::uniform_real_distribution<float>(-2.0f, 2.0f)(random);
    }));
  }
}

}  // namespace
