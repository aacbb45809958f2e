#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <sstream>

#include "tools/reports/QuantizationReport.h"

namespace {

using mlnn::QuantizationFindings;
using mlnn::QuantizationLoss;

QuantizationLoss lossOf(int bits, std::size_t floats, std::size_t integers, std::size_t right) {
  QuantizationLoss loss;
  loss.bits = bits;
  loss.stages = {{"layer-1", 4, 0.5, 0.25}, {"outputs", 2, 0.125, 0.0625}};
  loss.floats = {floats, right};
  loss.integers = {integers, right};
  loss.imageBytes = 1000u + static_cast<unsigned>(bits);
  return loss;
}

QuantizationFindings someFindings() {
  QuantizationFindings found;
  found.recordings = 4;
  found.knownRecordings = 4;
  found.frames = 100;
  found.keep = 0.9;
  found.rightRecordings = 4;
  found.imageBytes = 5000;
  found.losses = {lossOf(2, 90, 89, 4), lossOf(4, 95, 90, 4), lossOf(8, 100, 100, 3)};
  return found;
}

TEST(QuantizationReport, provesOneWidthStageByStage) {
  QuantizationFindings found = someFindings();
  found.losses.erase(found.losses.begin());
  std::ostringstream out;
  mlnn::printProof(found, out);
  EXPECT_EQ(out.str(),
            "stage    values  largest    mean\n"
            "layer-1       4      0.5    0.25\n"
            "outputs       2    0.125  0.0625\n"
            "same best class in 95.00 % of 100 frames, in integers 90.00 %\n"
            "4 of 4 recordings right, in integers 4; before 4\n"
            "image of 1004 bytes; before 5000\n"
            "4 bits keep 90 % of the decisions\n");
}

TEST(QuantizationReport, listsWidths) {
  std::ostringstream out;
  mlnn::printWidths(someFindings(), out);
  EXPECT_EQ(out.str(),
            "bits  largest    mean  same class  in integers   right  in integers  image bytes\n"
            "   2    0.125  0.0625     90.00 %      89.00 %  4 of 4       4 of 4         1002\n"
            "   4    0.125  0.0625     95.00 %      90.00 %  4 of 4       4 of 4         1004  *\n"
            "   8    0.125  0.0625    100.00 %     100.00 %  3 of 4       3 of 4         1008\n"
            "\n"
            "mean after  2 bits  4 bits  8 bits\n"
            "layer-1       0.25    0.25    0.25\n"
            "outputs     0.0625  0.0625  0.0625\n"
            "\n"
            "4 recordings, 100 frames; before 4 of 4 right, an image of 5000 bytes\n"
            "* the smallest width that keeps 90 % of the decisions\n");
}

TEST(QuantizationReport, isJson) {
  const auto json = mlnn::quantizationJson(someFindings());
  EXPECT_EQ(json["smallest_width"], 4);
  EXPECT_EQ(json["widths"][0]["integers"]["same_best_class_share"], 0.89);
  EXPECT_EQ(json["widths"][2]["floats"]["accuracy"], 0.75);
  EXPECT_EQ(json["widths"][0]["stages"][1]["largest"], 0.125);
}

}  // namespace
