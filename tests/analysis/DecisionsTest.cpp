#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "analysis/Decisions.h"
#include "tests/support/TwoClasses.h"

namespace {

using mlnn::Confusion;
using mlnn::Decision;
using mlnn::decisionOf;
using mlnn::test::posteriorsOfTwo;

TEST(DecisionsTest, tellsHowSureItIs) {
  const Decision decision = decisionOf(posteriorsOfTwo({0.75f, 0.75f}));
  EXPECT_EQ(decision.best, 0);
  EXPECT_EQ(decision.second, 1);
  EXPECT_DOUBLE_EQ(decision.meanPosterior, 0.75);
  EXPECT_DOUBLE_EQ(decision.margin, std::log(3.0));
  EXPECT_EQ(decision.settledAt, 0);
}

// The first two frames are for class 0; the third tips the sum.
TEST(DecisionsTest, tellsWhenItSettled) {
  EXPECT_EQ(decisionOf(posteriorsOfTwo({0.75f, 0.75f, 0.0625f, 0.5f})).best, 1);
  EXPECT_EQ(decisionOf(posteriorsOfTwo({0.75f, 0.75f, 0.0625f, 0.5f})).settledAt, 2);
  EXPECT_EQ(decisionOf(posteriorsOfTwo({0.25f, 0.9375f})).settledAt, 1);
}

TEST(DecisionsTest, hasNoNextClassOfOne) {
  const Decision decision = decisionOf(Eigen::MatrixXf::Ones(1, 3));
  EXPECT_EQ(decision.best, 0);
  EXPECT_EQ(decision.second, -1);
  EXPECT_EQ(decision.margin, 0);
}

TEST(DecisionsTest, isNoneWhereAPosteriorIsNotANumber) {
  Eigen::MatrixXf values = posteriorsOfTwo({0.75f, 0.5f});
  values(1, 1) = std::numeric_limits<float>::quiet_NaN();
  EXPECT_EQ(decisionOf(values).best, -1);
  EXPECT_EQ(decisionOf(values).meanPosterior, 0);
}

TEST(ConfusionTest, countsWhatIsTakenForWhat) {
  Confusion confusion;
  confusion.add(2, 2);
  confusion.add(2, 0);
  confusion.add(2, 0);
  confusion.add(1, -1);
  EXPECT_EQ(confusion.recordings(), 4u);
  EXPECT_EQ(confusion.right(), 1u);
  EXPECT_EQ(confusion.of(2, 0), 2u);
  EXPECT_EQ(confusion.of(1, -1), 1u);
  EXPECT_EQ(confusion.of(0, 2), 0u);
  EXPECT_EQ(confusion.counts().size(), 3u);
}

}  // namespace
