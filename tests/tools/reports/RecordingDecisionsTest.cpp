#include <gtest/gtest.h>

#include <algorithm>
#include <limits>

#include "inference/Evaluation.h"
#include "tests/support/TestModels.h"
#include "tools/reports/RecordingDecisions.h"

namespace {

using mlnn::FrameDecision;
using mlnn::RecordingDecisions;

// More frames than are held in memory; one of them is not a number.
TEST(RecordingDecisions, tellsOfEveryFrameInTheirOrder) {
  constexpr Eigen::Index kFrames = 70001;
  Eigen::MatrixXf outputs = mlnn::test::someValues(3, kFrames, 1).cwiseAbs();
  outputs(1, 69000) = std::numeric_limits<float>::quiet_NaN();
  RecordingDecisions decisions(true);
  for (Eigen::Index begin = 0; begin < kFrames; begin += 500) {
    decisions.add(outputs.middleCols(begin, std::min<Eigen::Index>(500, kFrames - begin)));
  }
  EXPECT_EQ(decisions.frames(), static_cast<uint64_t>(kFrames));
  EXPECT_EQ(decisions.undecided(), 1u);
  for (int round = 0; round < 2; ++round) {
    Eigen::Index next = 0;
    Eigen::Index wrong = 0;
    decisions.forEach([&](uint64_t frame, const FrameDecision& decision) {
      const Eigen::Index best = mlnn::bestClass(outputs.col(next));
      const bool isRight = frame == static_cast<uint64_t>(next) && decision.best == best &&
                           (best < 0 || decision.value == outputs(best, next));
      wrong += isRight ? 0 : 1;
      ++next;
    });
    EXPECT_EQ(next, kFrames);
    EXPECT_EQ(wrong, 0);
  }
}

TEST(RecordingDecisions, sumsLogarithmsAsOfAllFramesAtOnce) {
  const Eigen::MatrixXf outputs = mlnn::test::someValues(3, 100, 1).cwiseAbs();
  RecordingDecisions decisions(true);
  decisions.add(outputs.leftCols(33));
  decisions.add(outputs.rightCols(67));
  EXPECT_EQ(decisions.sums(), mlnn::sumOfLogs(outputs));
  RecordingDecisions plain(false);
  plain.add(outputs);
  EXPECT_EQ(plain.sums().size(), 0);
}

}  // namespace
