#include <gtest/gtest.h>

#include <cmath>
#include <sstream>

#include "tools/reports/Json.h"
#include "tools/reports/RunReport.h"

namespace {

using Eigen::MatrixXf;
using mlnn::OutputSide;

MatrixXf someOutputs() {
  MatrixXf outputs(2, 3);
  outputs << 0.75f, 0.25f, 0.5f, 0.25f, 0.75f, 0.5f;
  return outputs;
}

std::string tableOf(const OutputSide& network, const MatrixXf& outputs) {
  mlnn::RecordingDecisions decisions(network.arePosteriors);
  decisions.add(outputs);
  std::ostringstream out;
  mlnn::printDecisions(network, decisions, out);
  return out.str();
}

mlnn::Json jsonOf(const OutputSide& network, const MatrixXf& outputs) {
  mlnn::RecordingDecisions decisions(network.arePosteriors);
  decisions.add(outputs);
  std::ostringstream out;
  mlnn::JsonPrinter printer(out);
  printer.beginObject();
  mlnn::printDecisions(network, decisions, printer);
  printer.end();
  return mlnn::Json::parse(out.str());
}

TEST(RunReport, isATableOfFramesAndTheRecording) {
  EXPECT_EQ(tableOf({{"left", "r"}, true}, someOutputs()),
            "frame  class  posterior\n"
            "    0  left    0.750000\n"
            "    1  r       0.750000\n"
            "    2  left    0.500000\n"
            "recording: left, sum of log posteriors -2.367\n");
  EXPECT_EQ(tableOf({{"0", "1"}, false}, someOutputs().leftCols(1)),
            "frame  class  output\n"
            "    0  0        0.75\n");
}

TEST(RunReport, tellsNoClassOfWhatIsNoNumber) {
  MatrixXf outputs = someOutputs();
  outputs(1, 1) = std::nanf("");
  EXPECT_EQ(tableOf({{"left", "r"}, true}, outputs),
            "frame  class  posterior\n"
            "    0  left    0.750000\n"
            "    1  ?            nan\n"
            "    2  left    0.500000\n"
            "recording: ?, since 1 of 3 frames gave values that are not numbers\n");
  const mlnn::Json json = jsonOf({{"left", "r"}, true}, outputs);
  EXPECT_TRUE(json["frames"][1]["class"].is_null());
  EXPECT_TRUE(json["recording"]["sum_of_log_posteriors"].is_null());
}

TEST(RunReport, isJson) {
  const mlnn::Json json = jsonOf({{"left", "r"}, true}, someOutputs());
  ASSERT_EQ(json["frames"].size(), 3u);
  EXPECT_EQ(json["frames"][1], mlnn::Json({{"class", 1}, {"label", "r"}, {"posterior", 0.75}}));
  EXPECT_EQ(json["recording"]["label"], "left");
  EXPECT_FALSE(jsonOf({{"0", "1"}, false}, someOutputs()).contains("recording"));
}

TEST(RunReport, isToldWhileFramesArrive) {
  const OutputSide network{{"a", "longer"}, true};
  std::ostringstream out;
  mlnn::ArrivingDecisions arriving(network, out);
  EXPECT_EQ(out.str(), "frame  class   posterior\n");
  arriving.add(someOutputs().leftCols(1));
  EXPECT_EQ(out.str(), "frame  class   posterior\n    0  a        0.750000\n");
  arriving.add(someOutputs().rightCols(2));
  arriving.finish();
  EXPECT_EQ(out.str(),
            "frame  class   posterior\n"
            "    0  a        0.750000\n"
            "    1  longer   0.750000\n"
            "    2  a        0.500000\n"
            "recording: a, sum of log posteriors -2.367\n");
}

}  // namespace
