#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <sstream>

#include "tools/reports/SweepReport.h"

namespace {

mlnn::PrecisionLoss lossOf(int bits, std::size_t same, std::size_t right) {
  mlnn::PrecisionLoss loss;
  loss.bits = bits;
  loss.largestWeightError = 1.0 / bits;
  loss.sameBestClass = same;
  loss.rightRecordings = right;
  return loss;
}

mlnn::SweepFindings someFindings() {
  mlnn::SweepFindings found;
  found.recordings = 10;
  found.frames = 200;
  found.keep = 0.95;
  found.rightRecordings = 9;
  found.add(lossOf(2, 100, 5));
  found.add(lossOf(3, 190, 8));
  found.add(lossOf(4, 199, 9));
  return found;
}

TEST(SweepReport, findsTheSmallestWidthAndWhereAccuracyFalls) {
  const mlnn::SweepFindings found = someFindings();
  EXPECT_EQ(found.smallestWidth, 3);
  EXPECT_EQ(found.accuracyFallsAt, 3);
  mlnn::SweepFindings none = found;
  none.smallestWidth.reset();
  none.accuracyFallsAt.reset();
  none.losses.clear();
  none.add(lossOf(2, 189, 9));
  EXPECT_EQ(none.smallestWidth, std::nullopt);
  EXPECT_EQ(none.accuracyFallsAt, std::nullopt);
}

TEST(SweepReport, isATableWithAStar) {
  std::ostringstream out;
  mlnn::printSweep(someFindings(), out);
  EXPECT_EQ(out.str(),
            "bits  largest error  mean error  output  same class    right\n"
            "   2            0.5           0       0     50.00 %  5 of 10\n"
            "   3          0.333           0       0     95.00 %  8 of 10  *\n"
            "   4           0.25           0       0     99.50 %  9 of 10\n"
            "10 recordings, 200 frames; without reduction 9 of 10 right\n"
            "* the smallest width that keeps 95 % of the best classes\n"
            "accuracy falls at 3 bits, to 8 of 10\n");
}

TEST(SweepReport, isJson) {
  const auto json = mlnn::sweepJson(someFindings());
  EXPECT_EQ(json["smallest_width"], 3);
  EXPECT_EQ(json["accuracy_falls_at"], 3);
  EXPECT_EQ(json["accuracy"], 0.9);
  ASSERT_EQ(json["widths"].size(), 3u);
  EXPECT_EQ(json["widths"][1]["same_best_class_share"], 0.95);
  EXPECT_EQ(json["widths"][0]["keeps"], false);
  EXPECT_EQ(json["widths"][1]["keeps"], true);
  mlnn::SweepFindings unknown = someFindings();
  unknown.rightRecordings.reset();
  EXPECT_FALSE(mlnn::sweepJson(unknown).contains("accuracy"));
}

}  // namespace
