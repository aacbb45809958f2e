#include <gtest/gtest.h>

#include <limits>
#include <string>

#include "tests/support/TestModels.h"
#include "tests/tools/support/ToolBuild.h"
#include "tests/tools/support/ToolProcess.h"
#include "tools/Failure.h"
#include "tools/files/Frames.h"

namespace {

using mlnn::parseFrames;
using mlnn::test::contentOf;
using mlnn::test::sameBits;
using mlnn::test::TempFolder;

Eigen::MatrixXf twoByTwo() {
  Eigen::MatrixXf frames(2, 2);
  frames << 1, 3, 2.5f, -4;
  return frames;
}

std::string refusalOf(const std::string& text) {
  try {
    parseFrames(text, "F");
  } catch (const mlnn::Failure& failure) {
    return failure.what();
  }
  return "";
}

TEST(FramesTest, readsBlanksTabsAndCommas) {
  for (const std::string text : {
           "1 2.5\n3 -4\n",
           "1\t2.5\n3\t-4",
           "1,2.5\n3,-4\n",
           "1, 2.5\r\n3 ,\t-4\r\n",
           "  1   2.5  \n\n# a comment\n  # another\n   \n3 -4\n",
           "+1 25e-1\n3. -.4e1\n",
       }) {
    EXPECT_TRUE(sameBits(parseFrames(text, "F"), twoByTwo())) << text;
  }
}

TEST(FramesTest, readsNumbersToTheNearestFloat) {
  const float largest = std::numeric_limits<float>::max();
  const float denormal = std::numeric_limits<float>::denorm_min();
  Eigen::MatrixXf expected(6, 1);
  expected << 0.1f, 16777216.0f, largest, denormal, -0.0f, std::numeric_limits<float>::infinity();
  EXPECT_TRUE(
      sameBits(parseFrames("0.1 16777217 3.40282347e38 1.4e-45 -1e-60 inf\n", "F"), expected));
}

struct Refusal {
  std::string text;
  std::string message;
};

class FramesRefusalTest : public ::testing::TestWithParam<Refusal> {};

TEST_P(FramesRefusalTest, saysWhere) { EXPECT_EQ(refusalOf(GetParam().text), GetParam().message); }

INSTANTIATE_TEST_SUITE_P(
    All, FramesRefusalTest,
    ::testing::Values(
        Refusal{"", "F: holds no frames"}, Refusal{"# nothing\n\n", "F: holds no frames"},
        Refusal{"1 2\n3 x\n", "F, line 2, column 3: expected a number, found 'x'"},
        Refusal{"1 2\n\n3\n", "F, line 3: expected 2 values as in the lines before, found 1"},
        Refusal{"1 2,\n", "F, line 1, column 5: expected a number, found the end of the line"},
        Refusal{"1,,2\n", "F, line 1, column 3: expected a number, found ','"},
        Refusal{",1\n", "F, line 1, column 1: expected a number, found ','"},
        Refusal{"1;2\n", "F, line 1, column 1: expected a number, found '1;2'"},
        Refusal{"1.5.5\n", "F, line 1, column 1: expected a number, found '1.5.5'"},
        Refusal{"+-1\n", "F, line 1, column 1: expected a number, found '+-1'"},
        Refusal{"0x10\n", "F, line 1, column 1: expected a number, found '0x10'"},
        Refusal{"1e39\n",
                "F, line 1, column 1: expected a number in the range of 32-bit floats, found "
                "'1e39'"},
        Refusal{"1e999\n",
                "F, line 1, column 1: expected a number in the range of 32-bit floats, found "
                "'1e999'"},
        Refusal{"1 2\x1b[31m\n", "F, line 1, column 3: expected a number, found '2\\x1b[31m'"}));

TEST(FramesTest, namesTheFileThatCannotBeRead) {
  const TempFolder folder;
  const std::string missing = folder.path("none.npy");
  try {
    mlnn::readFrames(missing);
    FAIL();
  } catch (const mlnn::Failure& failure) {
    EXPECT_EQ(failure.what(), "cannot read '" + missing + "': No such file or directory");
  }
}

TEST(FramesTest, writesTextThatReadsBackExactly) {
  const TempFolder folder;
  const Eigen::MatrixXf frames = mlnn::test::someValues(7, 11, 3) * 1e-3f;
  mlnn::writeFrames(folder.path("frames.txt"), frames);
  EXPECT_TRUE(sameBits(mlnn::readFrames(folder.path("frames.txt")), frames));
  mlnn::writeFrames(folder.path("two.txt"), twoByTwo());
  EXPECT_EQ(contentOf(folder.path("two.txt")), "1 2.5\n3 -4\n");
}

TEST(FramesTest, writesArraysByTheirEnding) {
  const TempFolder folder;
  mlnn::writeFrames(folder.path("two.npy"), twoByTwo());
  EXPECT_EQ(contentOf(folder.path("two.npy")).substr(0, 6), "\x93NUMPY");
  EXPECT_TRUE(sameBits(mlnn::readFrames(folder.path("two.npy")), twoByTwo()));
}

constexpr char kSmallModel[] =
    "MultiLayerNNModel_v2\nsoftmax 1\nnum_layers 1\nlayer 1 size 1 2\nact_fn linear\n1 2\n";

TEST(FramesTest, refusesADeviceWithoutAnEnd) {
  const TempFolder folder;
  folder.write("model", kSmallModel);
  for (const std::string& line :
       {std::string("mlnn run model /dev/zero"), std::string("mlnn check /dev/urandom")}) {
    const auto result = mlnn::test::runShell("ulimit -t 60; " + line, folder.path());
    const std::string device = line.substr(line.find("/dev"));
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.err,
              "ERROR: cannot read '" + device + "': it does not end within 1048576 bytes\n");
  }
}

TEST(FramesTest, readsADeviceThatEnds) {
  EXPECT_EQ(mlnn::test::runTool({"check", "/dev/null"}).err.find("cannot read"), std::string::npos);
}

// What memory has room for is less in a process that may have little of it.
TEST(FramesTest, refusesAPipeWithoutAnEnd) {
  if (mlnn::test::toolHasSanitizers()) GTEST_SKIP() << "a sanitizer needs terabytes of addresses";
  const TempFolder folder;
  folder.write("model", kSmallModel);
  const auto result = mlnn::test::runShell(
      "yes 1 2>/dev/null | (ulimit -v 400000; ulimit -t 60; exec mlnn run --json model -)",
      folder.path());
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.err,
            "ERROR: cannot read standard input: it does not end within 102400000 bytes\n");
}

}  // namespace
