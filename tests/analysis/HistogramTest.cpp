#include <gtest/gtest.h>

#include <limits>
#include <vector>

#include "analysis/Histogram.h"

namespace {

using mlnn::Histogram;
using mlnn::histogramOf;
using Counts = std::vector<std::size_t>;

Histogram of(const std::vector<float>& values, std::size_t bins) {
  return histogramOf(values.data(), values.size(), bins);
}

TEST(HistogramTest, coversTheValuesFromTheSmallestToTheLargest) {
  const Histogram histogram = of({0, 1, 2, 3, 4, 4}, 4);
  EXPECT_EQ(histogram.low, 0);
  EXPECT_EQ(histogram.high, 4);
  EXPECT_EQ(histogram.counts, (Counts{1, 1, 1, 3}));
  EXPECT_EQ(histogram.notFinite, 0u);
}

TEST(HistogramTest, leavesOutWhatIsNotFinite) {
  constexpr float kInfinity = std::numeric_limits<float>::infinity();
  const Histogram histogram =
      of({kInfinity, -kInfinity, std::numeric_limits<float>::quiet_NaN(), 1, 2}, 2);
  EXPECT_EQ(histogram.low, 1);
  EXPECT_EQ(histogram.high, 2);
  EXPECT_EQ(histogram.counts, (Counts{1, 1}));
  EXPECT_EQ(histogram.notFinite, 3u);
}

TEST(HistogramTest, putsEqualValuesIntoTheMiddle) {
  for (const float value : {0.0f, -2.5f, 3e38f, 1e-45f}) {
    const Histogram histogram = of({value, value}, 3);
    EXPECT_LT(histogram.low, double{value});
    EXPECT_GT(histogram.high, double{value});
    EXPECT_EQ(histogram.counts, (Counts{0, 2, 0}));
  }
}

TEST(HistogramTest, withoutFiniteValuesIsEmpty) {
  EXPECT_EQ(of({}, 2).counts, (Counts{0, 0}));
  EXPECT_EQ(of({std::numeric_limits<float>::quiet_NaN()}, 2).counts, (Counts{0, 0}));
}

TEST(HistogramTest, takesTheWholeRangeOfFloats) {
  constexpr float kMax = std::numeric_limits<float>::max();
  EXPECT_EQ(of({-kMax, 0.0f, kMax}, 2).counts, (Counts{1, 2}));
}

}  // namespace
