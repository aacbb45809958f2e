#include <gtest/gtest.h>

#include <limits>
#include <sstream>
#include <string>

#include "tests/support/TwoClasses.h"
#include "tests/tools/support/ToolProcess.h"
#include "tools/reports/PosteriorLine.h"

namespace {

using mlnn::CharacterSet;
using mlnn::OutputSide;
using mlnn::printPosteriorLine;
using mlnn::TerminalLook;
using mlnn::test::posteriorsOfTwo;
using mlnn::test::shownOnTerminal;

std::string lineOf(const Eigen::MatrixXf& outputs, const TerminalLook& look,
                   bool arePosteriors = true) {
  std::ostringstream out;
  printPosteriorLine(OutputSide{{"no", "yes"}, arePosteriors}, outputs, look, out);
  return out.str();
}

TEST(PosteriorLineTest, showsThePosteriorsOfTheDecidedClass) {
  const Eigen::MatrixXf outputs = posteriorsOfTwo({0.01f, 0.25f, 0.5f, 0.75f, 0.99f, 0.99f, 0.99f});
  EXPECT_EQ(lineOf(outputs, {80, CharacterSet::kUnicode, false}), "over time: ▁▃▅▆███\n");
  EXPECT_EQ(lineOf(outputs, {80, CharacterSet::kAscii, false}), "over time: _-+*@@@\n");
}

TEST(PosteriorLineTest, keepsFewOutputsAsTheyAre) {
  mlnn::CoarseOutputs coarse;
  const Eigen::MatrixXf outputs = posteriorsOfTwo({0.5f, 1, 0, 0.25f});
  coarse.add(outputs.leftCols(1));
  coarse.add(outputs.rightCols(3));
  EXPECT_EQ(coarse.outputs(), outputs);
}

// 8192 columns hold two frames each, then four; the last one is of those that are left.
TEST(PosteriorLineTest, keepsMeansOfManyOutputs) {
  mlnn::CoarseOutputs coarse;
  constexpr Eigen::Index kFrames = 8192 * 3 + 1;
  Eigen::MatrixXf outputs(1, kFrames);
  for (Eigen::Index f = 0; f < kFrames; ++f) outputs(0, f) = static_cast<float>(f);
  for (Eigen::Index f = 0; f < kFrames; f += 11) {
    coarse.add(outputs.middleCols(f, std::min<Eigen::Index>(11, kFrames - f)));
  }
  const Eigen::MatrixXf found = coarse.outputs();
  ASSERT_EQ(found.cols(), 8192 * 3 / 4 + 1);
  for (Eigen::Index c = 0; c + 1 < found.cols(); ++c) {
    ASSERT_EQ(found(0, c), 4 * static_cast<float>(c) + 1.5f);
  }
  EXPECT_EQ(found(0, found.cols() - 1), 8192 * 3);
}

TEST(PosteriorLineTest, showsMeansWhereThereAreMoreFramesThanRoom) {
  const Eigen::MatrixXf outputs = posteriorsOfTwo({0.5f, 1, 1, 1, 0, 1});
  EXPECT_EQ(lineOf(outputs, {14, CharacterSet::kAscii, false}), "over time: *@+\n");
  EXPECT_EQ(lineOf(outputs, {3, CharacterSet::kAscii, false}), "over time: *\n");
}

TEST(PosteriorLineTest, hasColoursOnDemand) {
  EXPECT_EQ(lineOf(posteriorsOfTwo({1, 1, 0.25f, 1}), {80, CharacterSet::kAscii, true}),
            "over time: \x1b[32m@@\x1b[33m-\x1b[32m@\x1b[0m\n");
}

TEST(PosteriorLineTest, isNoneWithoutADecision) {
  const TerminalLook look;
  EXPECT_EQ(lineOf(posteriorsOfTwo({1}), look, false), "");
  EXPECT_EQ(lineOf(Eigen::MatrixXf(2, 0), look), "");
  EXPECT_EQ(lineOf(posteriorsOfTwo({std::numeric_limits<float>::quiet_NaN()}), look), "");
}

std::string lastLineOf(const std::string& text) {
  const std::size_t end = text.rfind("\r\n");
  const std::size_t begin = text.rfind('\n', end - 1) + 1;
  return text.substr(begin, end - begin);
}

const std::string kRun = "mlnn run examples/digits/synth.txt examples/digits/frames/3_en-us_f4.npy";

TEST(PosteriorLineTest, endsWhatIsSaidOfARecordingOnATerminal) {
  const std::string said =
      lastLineOf(shownOnTerminal("LC_ALL=C TERM=xterm NO_COLOR=1 " + kRun, 31));
  EXPECT_EQ(said.substr(0, 11), "over time: ");
  EXPECT_EQ(said.size(), 31u);
  const std::string coloured =
      lastLineOf(shownOnTerminal("LC_ALL=C TERM=xterm NO_COLOR= " + kRun, 31));
  EXPECT_NE(coloured.find("\x1b[32m"), std::string::npos);
  EXPECT_EQ(lastLineOf(shownOnTerminal("LC_ALL=C TERM=dumb NO_COLOR= " + kRun, 31)), said);
}

TEST(PosteriorLineTest, isNotThereElsewhere) {
  EXPECT_EQ(mlnn::test::runShell(kRun).out.find("over time"), std::string::npos);
  const std::string several = shownOnTerminal(kRun + " examples/digits/frames/3_en-gb_m4.npy", 80);
  EXPECT_EQ(several.find("over time"), std::string::npos);
}

}  // namespace
