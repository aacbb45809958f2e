#include <gtest/gtest.h>

#include <limits>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "tests/support/ByteImage.h"
#include "tests/support/DigitsFolder.h"
#include "tests/support/SourceTree.h"
#include "tests/support/TestModels.h"
#include "tests/tools/support/CommandFixture.h"
#include "tools/files/ModelLoading.h"

namespace {

using mlnn::test::contentOf;
using mlnn::test::runTool;
using mlnn::test::sourcePath;
using mlnn::test::ToolResult;
using Names = std::vector<std::string>;

// Two inputs and two classes: 7 x + y against 5 x + 2.4 y. With 2 bits the first class is 7 x, and
// the second 5 x; with 3 bits 7 x and 5 x + 1.67 y; with 4 bits 7 x + y and 5 x + 2.14 y.
constexpr char kModel[] =
    "MultiLayerNNModel_v2\nsoftmax 1\n# NVP labels x,y\nnum_layers 1\nlayer 1 size 2 3\n"
    "act_fn linear\n0.5\t7\t1\n0\t5\t2.4000001\n";

constexpr char kFoldable[] =
    "MultiLayerNNModel_v2\nsoftmax 0\nnum_layers 1\nbatch_norm_layer 1 size 1 2\n7\t2.6\n"
    "gamma_beta\n1\t0\t0.5\t3\n";

class QuantizeCommandTest : public mlnn::test::CommandFixture {
 protected:
  QuantizeCommandTest() : CommandFixture("quantize") {
    folder_.write("in.txt", kModel);
    folder_.write("x.txt", "1 0\n");
    folder_.write("y.txt", "0 1\n1 2\n0 3\n");
    folder_.write("labels.csv", "file,label\nx.txt,x\ny.txt,y\n");
  }

  static constexpr const char* kTwoBits =
      "MultiLayerNNModel_v2\nsoftmax 1\n# NVP labels x,y\nnum_layers 1\nlayer 1 size 2 3\n"
      "act_fn linear\n0.5\t7\t0\n0\t5\t0\n";
};

TEST_F(QuantizeCommandTest, writesTheQuantisedModel) {
  ToolResult result = run({"in.txt", "-", "--bits", "2"});
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.err, "");
  EXPECT_EQ(result.out, kTwoBits);
  result = run({"in.txt", "-", "--bits", "4"});
  EXPECT_NE(result.out.find("\n0.5\t7\t1\n"), std::string::npos) << result.out;
}

TEST_F(QuantizeCommandTest, eightBitsAreTheDefault) {
  EXPECT_EQ(run({"in.txt", "-"}).out, run({"in.txt", "-", "--bits", "8"}).out);
}

TEST_F(QuantizeCommandTest, tellsOfLayersThatStayAndOfBatchNormThatGoes) {
  ToolResult result = run({"in.txt", "-", "--bits", "2", "--leave", "0.1"});
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.err, "info: layer 1 stays as it is: its relative error would be 0.289\n");
  EXPECT_EQ(result.out, kModel);
  folder_.write("bn.txt", kFoldable);
  result = run({"bn.txt", "-", "--bits", "4", "--act-fn", "linear"});
  EXPECT_NE(result.err.find("info: the batch norm of layer 1 became part of its scales\n"),
            std::string::npos)
      << result.err;
  EXPECT_NE(result.out.find("\n3\t3.5\t1.5\n"), std::string::npos) << result.out;
}

TEST_F(QuantizeCommandTest, correctsBiases) {
  // Over y.txt the first class loses 2 on the mean, and the second 4.8.
  const ToolResult result = run({"in.txt", "-", "--bits", "2", "--correct", "y.txt"});
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.err, "");
  EXPECT_NE(result.out.find("\n2.5\t7\t0\n4.80000"), std::string::npos) << result.out;
}

TEST_F(QuantizeCommandTest, refusesOutWhereTooLittleIsKept) {
  folder_.write("out.txt", "as it was");
  const ToolResult result = run(
      {"in.txt", "out.txt", "--bits", "2", "--prove", "x.txt", "y.txt", "--labels", "labels.csv"});
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.err,
            "ERROR: nothing written: 2 bits keep less than --keep asks for, which is 95 %\n");
  EXPECT_NE(result.out.find("\nsame best class in 25.00 % of 4 frames, in integers 25.00 %\n"
                            "1 of 2 recordings right, in integers 1; before 2\n"),
            std::string::npos)
      << result.out;
  EXPECT_NE(result.out.find("\n2 bits do not keep 95 % of the decisions\n"), std::string::npos)
      << result.out;
  EXPECT_EQ(contentOf(folder_.path("out.txt")), "as it was");
  EXPECT_EQ(run({"in.txt", "out.txt", "--bits", "2", "--prove", "x.txt", "y.txt", "--labels",
                 "labels.csv", "--keep", "0.987654321"})
                .err,
            "ERROR: nothing written: 2 bits keep less than --keep asks for, which is 98.7654 %\n");
}

TEST_F(QuantizeCommandTest, writesWhereEnoughIsKept) {
  const ToolResult result =
      run({"in.txt", "out.txt", "--bits", "2", "--prove", "x.txt", "y.txt", "--keep", "0.2"});
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.err, "");
  EXPECT_NE(result.out.find("\n2 bits keep 20 % of the decisions\n"), std::string::npos)
      << result.out;
  EXPECT_EQ(contentOf(folder_.path("out.txt")), kTwoBits);
}

TEST_F(QuantizeCommandTest, sweepShowsEachWidthAndWritesNothing) {
  const Names before = folder_.names();
  const ToolResult result =
      run({"in.txt", "--sweep", "2..4", "--prove", "x.txt", "y.txt", "--labels", "labels.csv"});
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.err, "");
  EXPECT_EQ(folder_.names(), before);
  EXPECT_EQ(result.out.substr(0, result.out.find('\n')),
            "bits  largest    mean  same class  in integers   right  in integers  image bytes");
  EXPECT_NE(result.out.find("\nmean after      2 bits  3 bits  4 bits\n"), std::string::npos)
      << result.out;
  EXPECT_NE(result.out.find("\n2 recordings, 4 frames; before 2 of 2 right, an image of 1068 "
                            "bytes\n* the smallest width that keeps 95 % of the decisions\n"),
            std::string::npos)
      << result.out;
}

TEST_F(QuantizeCommandTest, sweepAsJson) {
  const ToolResult result = run({"in.txt", "--sweep", "2..4", "--prove", "x.txt", "y.txt",
                                 "--labels", "labels.csv", "--json"});
  const auto report = nlohmann::json::parse(result.out);
  EXPECT_EQ(report["recordings"], 2);
  EXPECT_EQ(report["frames"], 4);
  EXPECT_EQ(report["keep"], 0.95);
  EXPECT_EQ(report["smallest_width"], 3);
  EXPECT_EQ(report["accuracy"], 1.0);
  EXPECT_EQ(report["image_bytes"], 1068);
  ASSERT_EQ(report["widths"].size(), 3u);
  const auto& two = report["widths"][0];
  EXPECT_EQ(two["bits"], 2);
  EXPECT_EQ(two["keeps"], false);
  EXPECT_EQ(two["floats"]["same_best_class"], 1);
  EXPECT_EQ(two["floats"]["right_recordings"], 1);
  ASSERT_EQ(two["stages"].size(), 3u);
  EXPECT_EQ(two["stages"][0]["stage"], "layer-1-affine");
  EXPECT_EQ(two["stages"][0]["values"], 2);
}

// Which can be read once only.
TEST_F(QuantizeCommandTest, recordingsFromTheStandardInput) {
  const ToolResult result = run({"in.txt", "--bits", "2", "--prove", "-"}, "1 0\n0 1\n");
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.err, "");
  EXPECT_NE(result.out.find("\nsame best class in 50.00 % of 2 frames, in integers 50.00 %\n"),
            std::string::npos)
      << result.out;
}

// --- Refusals ---

TEST_F(QuantizeCommandTest, wrongUsage) {
  expectRefused({"in.txt"}, 2,
                "ERROR: OUT is required, unless --prove or --sweep shows what it would be\n");
  expectRefused({"in.txt", "out.txt", "--sweep", "4..8", "--prove", "x.txt"}, 2,
                "ERROR: --sweep writes no model, but OUT is given: 'out.txt'\n");
  expectRefused({"in.txt", "--sweep", "4..8"}, 2, "ERROR: --sweep requires --prove\n");
  expectRefused({"in.txt", "--sweep", "4..8", "--bits", "4", "--prove", "x.txt"}, 2,
                "ERROR: --sweep tries many widths, so --bits does not go with it\n");
  expectRefused({"in.txt", "--sweep", "1..8", "--prove", "x.txt"}, 2,
                "ERROR: --sweep: expected a range within 2..8, as in 4..8, but found '1..8'\n");
}

TEST_F(QuantizeCommandTest, numbersOutOfRange) {
  for (const std::string bits : {"0", "1", "9", "-1", "2.5", "99999999999999999999"}) {
    expectRefused({"in.txt", "out.txt", "--bits", bits}, 2,
                  "ERROR: --bits: Value " + bits +
                      " not in range 2 to 8\nRun with --help for more information.\n");
  }
  for (const std::string keep : {"nan", "-0.1", "1.1", "x"}) {
    expectRefused({"in.txt", "out.txt", "--prove", "x.txt", "--keep", keep}, 2,
                  "ERROR: --keep: expected a number from 0 to 1, found '" + keep +
                      "'\nRun with --help for more information.\n");
  }
  for (const std::string most : {"nan", "-1", "x"}) {
    expectRefused({"in.txt", "out.txt", "--leave", most}, 2,
                  "ERROR: --leave: expected a number of at least 0, found '" + most +
                      "'\nRun with --help for more information.\n");
  }
  for (const std::string widths : {"8..4", "4..9", "a..b", "4..", "..8", "4...8"}) {
    expectRefused(
        {"in.txt", "--sweep", widths, "--prove", "x.txt"}, 2,
        "ERROR: --sweep: expected a range within 2..8, as in 4..8, but found '" + widths + "'\n");
  }
}

TEST_F(QuantizeCommandTest, weightsThatAreNotFinite) {
  constexpr float kInfinity = std::numeric_limits<float>::infinity();
  for (const float weight : {kInfinity, -kInfinity, std::numeric_limits<float>::quiet_NaN()}) {
    const MultiLayerNNModel model = mlnn::test::imageModel();
    model.layers[1]->weights(2, 1) = weight;
    folder_.write("odd.mlnn", mlnn::test::ByteImage::of(model).bytes());
    folder_.write("out.txt", "as it was");
    expectRefused({"odd.mlnn", "out.txt"}, 1,
                  "ERROR: quantizeRows: layer 2 has a weight that is not finite\n"
                  "ERROR: the model cannot be quantised\n");
    EXPECT_EQ(contentOf(folder_.path("out.txt")), "as it was");
  }
}

TEST_F(QuantizeCommandTest, rowsOfZerosStayZeros) {
  std::string text = kModel;
  text.replace(text.find("7\t1"), 3, "-0\t0");
  folder_.write("zeros.txt", text);
  const ToolResult result = run({"zeros.txt", "-", "--prove", "x.txt"});
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.err, "");
  EXPECT_NE(result.out.find("\n0.5\t0\t0\n"), std::string::npos) << result.out;
}

// Nothing could be told from them: NaN would be as far from itself as from anything.
TEST_F(QuantizeCommandTest, recordingsWhoseOutputsAreNotFinite) {
  folder_.write("nan.txt", "nan 0\n");
  const std::string warning = "Warning: 'nan.txt' holds 1 value not finite\n";
  expectRefused({"in.txt", "out.txt", "--prove", "x.txt", "nan.txt"}, 1,
                warning + "ERROR: 'nan.txt': the outputs are not finite, which proves nothing\n");
  // As a mean it is none, so that the biases stay as they are.
  const ToolResult corrected = run({"in.txt", "-", "--bits", "2", "--correct", "nan.txt"});
  EXPECT_EQ(corrected.status, 0);
  EXPECT_EQ(corrected.err, warning);
  EXPECT_EQ(corrected.out, kTwoBits);
}

TEST_F(QuantizeCommandTest, labelsThatDoNotFit) {
  const auto refused = [this](const std::string& labels, const std::string& message) {
    folder_.write("odd.csv", labels);
    expectRefused({"in.txt", "out.txt", "--prove", "x.txt", "--labels", "odd.csv"}, 1,
                  "ERROR: " + message + "\n");
  };
  refused("", "'odd.csv' is empty; expected a heading");
  refused("name,label\nx.txt,x\n", "'odd.csv', line 1: expected a column called 'file'");
  refused("file,label\ny.txt,y\n", "'odd.csv' has no label for 'x.txt'");
  refused("file,label\nx.txt,z\n", "the label 'z' of 'x.txt' is no class of the model");
  expectRefused({"in.txt", "out.txt", "--prove", "x.txt", "--labels", "absent.csv"}, 1,
                "ERROR: cannot read 'absent.csv': No such file or directory\n");
}

TEST_F(QuantizeCommandTest, recordingsWithoutFrames) {
  folder_.write("none.txt", "");
  for (const std::string option : {"--prove", "--correct"}) {
    expectRefused({"in.txt", "out.txt", option, "none.txt"}, 1,
                  "ERROR: 'none.txt': holds no frames\n");
  }
}

TEST_F(QuantizeCommandTest, filesThatCannotBeWritten) {
  expectRefused({"in.txt", "absent/out.txt"}, 1,
                "ERROR: cannot write 'absent/out.txt': No such file or directory\n");
  expectRefused({"in.txt", "/dev/full"}, 1,
                "ERROR: cannot write '/dev/full': No space left on device\n");
  EXPECT_EQ(contentOf(folder_.path("in.txt")), kModel);
}

// The model's own file may be OUT: it is replaced when all is proved, and not before.
TEST_F(QuantizeCommandTest, inIsReplacedWhereItIsOutAndEnoughIsKept) {
  const Names arguments = {"in.txt", "in.txt", "--bits", "2", "--prove", "x.txt", "y.txt"};
  EXPECT_EQ(run(arguments).status, 1);
  EXPECT_EQ(contentOf(folder_.path("in.txt")), kModel);
  Names lenient = arguments;
  lenient.insert(lenient.end(), {"--keep", "0.2"});
  EXPECT_EQ(run(lenient).status, 0);
  EXPECT_EQ(contentOf(folder_.path("in.txt")), kTwoBits);
}

TEST_F(QuantizeCommandTest, framesOfAnotherWidth) {
  folder_.write("wide.txt", "1 2 3\n");
  for (const std::string option : {"--prove", "--correct"}) {
    expectRefused({"in.txt", "out.txt", option, "wide.txt"}, 1,
                  "ERROR: 'wide.txt' has 3 values in a frame; expected 2 (input vectors); the "
                  "model does not tell the width of single frames\n");
  }
}

// --- What it is for ---

// The recordings of examples/digits: 28 of 30 words are decided rightly, as by the floats.
TEST(QuantizeDigits, eightBitsKeepTheWords) {
  const std::string shell =
      " examples/digits/synth.txt --sweep 6..8 --prove examples/digits/frames/*.npy --labels "
      "examples/digits/labels.csv --json";
  const ToolResult result = mlnn::test::runShell("mlnn quantize" + shell, sourcePath(""));
  ASSERT_EQ(result.status, 0) << result.err;
  const auto report = nlohmann::json::parse(result.out);
  EXPECT_EQ(report["right_recordings"], 28);
  for (const auto& width : report["widths"]) {
    EXPECT_EQ(width["floats"]["right_recordings"], 28) << width["bits"];
    EXPECT_GE(width["integers"]["right_recordings"], 27) << width["bits"];
  }
}

}  // namespace
