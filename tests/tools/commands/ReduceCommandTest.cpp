#include <gtest/gtest.h>

#include <filesystem>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "tests/support/DigitsFolder.h"
#include "tests/support/SourceTree.h"
#include "tests/tools/support/CommandFixture.h"

namespace {

namespace fs = std::filesystem;
using mlnn::test::contentOf;
using mlnn::test::digitsFolder;
using mlnn::test::runTool;
using mlnn::test::sourcePath;
using mlnn::test::ToolResult;
using Names = std::vector<std::string>;

// Two inputs and two classes: 1 x against 0.9 y. A weight of 0.9 becomes 0 with no bits, 0.5
// with one, 0.75 with two.
constexpr char kModel[] =
    "MultiLayerNNModel_v2\nsoftmax 1\n# NVP labels x,y\nnum_layers 1\nlayer 1 size 2 3\n"
    "act_fn linear\n0\t1\t0\n0\t0\t0.899999976\n";

constexpr char kBatchNorm[] =
    "MultiLayerNNModel_v2\nsoftmax 0\nnum_layers 1\nbatch_norm_layer 1 size 1 2\n1\t0.3\n"
    "gamma_beta\n0.3\t0.3\t0.3\t0.3\n";

class ReduceCommandTest : public mlnn::test::CommandFixture {
 protected:
  ReduceCommandTest() : CommandFixture("reduce") {
    folder_.write("in.txt", kModel);
    folder_.write("x.txt", "1 1\n");       // x: 1 against 0.9
    folder_.write("y.txt", "1 2\n1 3\n");  // y: 1 against 1.8, and against 2.7
    folder_.write("labels.csv", "who,file,label\nA,x.txt,x\n\"B, C\",y.txt,y\n");
  }

  ToolResult sweep(const std::vector<std::string>& more) const {
    std::vector<std::string> command = {"in.txt", "--sweep", "0..2", "--frames", "x.txt", "y.txt"};
    command.insert(command.end(), more.begin(), more.end());
    return run(command);
  }
};

TEST_F(ReduceCommandTest, writesTheReducedModel) {
  const ToolResult result = run({"in.txt", "-", "--bits", "2"});
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.err, "v_range 0.000000 - 1.000000 (1.000000), p_range 4\n");
  EXPECT_EQ(result.out,
            "MultiLayerNNModel_v2\nsoftmax 1\n# NVP labels x,y\nnum_layers 1\nlayer 1 size 2 3\n"
            "act_fn linear\n0\t1\t0\n0\t0\t0.75\n");
}

TEST_F(ReduceCommandTest, warnsOfWeightsThatAreQuantisedByRows) {
  const std::string digits = mlnn::test::sourcePath("examples/digits/synth.txt");
  ASSERT_EQ(mlnn::test::runTool({"quantize", digits, folder_.path("rows.txt")}).status, 0);
  const ToolResult result = run({"rows.txt", "out.txt", "--bits", "8"});
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.err,
            "Warning: the weights are quantised by rows, which one grid for the whole model "
            "undoes\n"
            "Warning: 61 % of the weights are smaller than a step of 8 bits and become zero or the "
            "same; see what that loses with 'mlnn reduce --sweep'\n"
            "v_range -193.347244 - 138.880997 (332.228241), p_range 256\n");
}

TEST_F(ReduceCommandTest, warnsOfBatchNormVectors) {
  folder_.write("bn.txt", kBatchNorm);
  const ToolResult result = run({"bn.txt", "-", "--bits", "1"});
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.err,
            "Warning: the vectors of 1 batch-norm layer keep all their bits (fold the model "
            "before)\n"
            "Warning: 50 % of the weights are smaller than a step of 1 bit and become zero or the "
            "same; see what that loses with 'mlnn reduce --sweep', or use 'mlnn quantize'\n"
            "v_range 0.000000 - 1.000000 (1.000000), p_range 2\n");
  EXPECT_NE(result.out.find("\n1\t0\ngamma_beta\n0.300000012\t0.300000012\t"), std::string::npos)
      << result.out;
}

TEST_F(ReduceCommandTest, sweepShowsWhatEachWidthLoses) {
  const Names before = folder_.names();
  const ToolResult result = sweep({});
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.err, "");
  EXPECT_EQ(result.out,
            "bits  largest error  mean error  posterior  same class\n"
            "   0            0.9        0.15      0.577     33.33 %\n"
            "   1            0.4      0.0667      0.223     66.67 %\n"
            "   2           0.15       0.025     0.0682    100.00 %  *\n"
            "2 recordings, 3 frames\n"
            "* the smallest width that keeps 99 % of the best classes\n");
  EXPECT_EQ(folder_.names(), before);
}

TEST_F(ReduceCommandTest, sweepWithLabelsShowsTheAccuracy) {
  const ToolResult result = sweep({"--labels", "labels.csv", "--keep", "0.5"});
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.out,
            "bits  largest error  mean error  posterior  same class   right\n"
            "   0            0.9        0.15      0.577     33.33 %  1 of 2\n"
            "   1            0.4      0.0667      0.223     66.67 %  2 of 2  *\n"
            "   2           0.15       0.025     0.0682    100.00 %  2 of 2\n"
            "2 recordings, 3 frames; without reduction 2 of 2 right\n"
            "* the smallest width that keeps 50 % of the best classes\n"
            "accuracy falls at 0 bits, to 1 of 2\n");
}

TEST_F(ReduceCommandTest, takesNoOtherShareThanZeroToOne) {
  for (const std::string keep : {"nan", "-0.1", "1.1", "x"}) {
    const ToolResult result = sweep({"--keep", keep});
    EXPECT_EQ(result.status, 2);
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(result.err, "ERROR: --keep: expected a number from 0 to 1, found '" + keep +
                              "'\nRun with --help for more information.\n");
  }
}

TEST_F(ReduceCommandTest, sweepSaysWhereTheAccuracyHolds) {
  const ToolResult result =
      run({"in.txt", "--sweep", "1..2", "--frames", "x.txt", "y.txt", "--labels", "labels.csv"});
  EXPECT_EQ(result.status, 0);
  EXPECT_NE(result.out.find("\nno width decides fewer recordings rightly\n"), std::string::npos)
      << result.out;
}

TEST_F(ReduceCommandTest, sweepSaysWhenNoWidthKeepsEnough) {
  const ToolResult result = run({"in.txt", "--sweep", "0..1", "--frames", "x.txt", "y.txt"});
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.out,
            "bits  largest error  mean error  posterior  same class\n"
            "   0            0.9        0.15      0.577     33.33 %\n"
            "   1            0.4      0.0667      0.223     66.67 %\n"
            "2 recordings, 3 frames\n"
            "no width keeps 99 % of the best classes\n");
}

TEST_F(ReduceCommandTest, sweepAsJson) {
  const ToolResult result = sweep({"--json", "--labels", "labels.csv"});
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.err, "");
  const auto report = nlohmann::json::parse(result.out);
  EXPECT_EQ(report["recordings"], 2);
  EXPECT_EQ(report["frames"], 3);
  EXPECT_EQ(report["keep"], 0.99);
  EXPECT_EQ(report["smallest_width"], 2);
  EXPECT_EQ(report["accuracy"], 1.0);
  EXPECT_EQ(report["accuracy_falls_at"], 0);
  ASSERT_EQ(report["widths"].size(), 3u);
  const auto& none = report["widths"][0];
  EXPECT_EQ(none["bits"], 0);
  EXPECT_EQ(none["largest_weight_error"], double{0.9f});
  EXPECT_EQ(none["mean_weight_error"], double{0.9f} / 6);
  EXPECT_EQ(none["same_best_class"], 1);
  EXPECT_EQ(none["same_best_class_share"], 1.0 / 3);
  EXPECT_EQ(none["keeps"], false);
  EXPECT_EQ(none["right_recordings"], 1);
  EXPECT_EQ(none["accuracy"], 0.5);
  EXPECT_EQ(report["widths"][2]["keeps"], true);
}

TEST_F(ReduceCommandTest, jsonHasNullWhereNoWidthKeepsEnough) {
  const ToolResult result =
      run({"in.txt", "--sweep", "1", "--frames", "y.txt", "--keep", "1", "--json"});
  const auto report = nlohmann::json::parse(result.out);
  EXPECT_EQ(report["smallest_width"], nullptr);
  EXPECT_EQ(report.count("accuracy"), 0u);
  EXPECT_EQ(report["widths"].size(), 1u);
}

TEST_F(ReduceCommandTest, aBatchNormLayersUnusedBiasIsNoError) {
  folder_.write("bn.txt", kBatchNorm);
  const ToolResult result = run({"bn.txt", "--sweep", "1", "--frames", "x.txt", "--json"});
  const auto report = nlohmann::json::parse(result.out);
  // Weights 1 and 0.3, of which the latter becomes 0; the bias of 0 does not count.
  EXPECT_EQ(report["widths"][0]["mean_weight_error"], double{0.3f} / 2);
}

TEST_F(ReduceCommandTest, eitherBitsOrSweep) {
  const std::string either =
      "ERROR: expected either --bits, to write a model, or --sweep, to show a table\n";
  expectRefused({"in.txt", "out.txt"}, 2, either);
  expectRefused({"in.txt", "out.txt", "--bits", "3", "--sweep", "1..2"}, 2, either);
  expectRefused({"in.txt", "--bits", "3"}, 2, "ERROR: OUT is required with --bits\n");
  expectRefused({"in.txt", "--sweep", "1..2"}, 2, "ERROR: --sweep requires --frames\n");
  expectRefused({"in.txt", "out.txt", "--sweep", "1..2", "--frames", "x.txt"}, 2,
                "ERROR: --sweep writes no model, but OUT is given: 'out.txt'\n");
}

TEST_F(ReduceCommandTest, takesOneFileFromTheStandardInput) {
  const std::string once = "ERROR: only one of the files can be the standard input\n";
  expectRefused({"-", "--sweep", "1", "--frames", "-"}, 2, once);
  expectRefused({"in.txt", "--sweep", "1", "--frames", "-", "--labels", "-"}, 2, once);
}

TEST(ReduceCommandOnDigits, showsAtWhichWidthTheAccuracyFalls) {
  const std::string digits = digitsFolder();
  if (digits.empty()) GTEST_SKIP() << mlnn::test::kNoDigits;
  Names command = {"reduce",   digits + "/digits-small.txt", "--sweep", "12..18",
                   "--labels", digits + "/labels.csv",       "--json",  "--frames"};
  for (const auto& entry : fs::directory_iterator(digits + "/frames")) {
    command.push_back(entry.path().string());
  }
  const ToolResult result = runTool(command);
  ASSERT_EQ(result.status, 0) << result.err;
  const auto report = nlohmann::json::parse(result.out);
  EXPECT_EQ(report["right_recordings"], 30);
  ASSERT_TRUE(report["accuracy_falls_at"].is_number()) << report;
  const int fallsAt = report["accuracy_falls_at"];
  for (const auto& width : report["widths"]) {
    if (width["bits"] == fallsAt) {
      EXPECT_LT(width["right_recordings"], 30);
    }
    if (width["bits"] > fallsAt) {
      EXPECT_EQ(width["right_recordings"], 30);
    }
  }
  EXPECT_LT(fallsAt, 18);
}

TEST_F(ReduceCommandTest, refusesWidthsThatThereAreNot) {
  EXPECT_EQ(run({"in.txt", "out.txt", "--bits", "32"}).status, 2);
  EXPECT_EQ(run({"in.txt", "out.txt", "--bits", "-1"}).status, 2);
  EXPECT_FALSE(fs::exists(folder_.path("out.txt")));
  for (const std::string range :
       {"", "a", "2.16", "2..", "..3", "5..2", "2..32", "-1..3", "1..2x", "1...2", "99999999999"}) {
    if (range.empty()) continue;
    expectRefused(
        {"in.txt", "--sweep=" + range, "--frames", "x.txt"}, 2,
        "ERROR: --sweep: expected a range within 0..31, as in 2..16, but found '" + range + "'\n");
  }
}

TEST_F(ReduceCommandTest, refusesLabelsThatDoNotFit) {
  const auto expectLabels = [this](const std::string& csv, const std::string& message) {
    folder_.write("bad.csv", csv);
    expectRefused({"in.txt", "--sweep", "1", "--frames", "x.txt", "--labels", "bad.csv"}, 1,
                  "ERROR: " + message + "\n");
  };
  expectLabels("", "'bad.csv' is empty; expected a heading");
  expectLabels("file,other\nx.txt,x\n", "'bad.csv', line 1: expected a column called 'label'");
  expectLabels("file,label\nz.txt,x\n", "'bad.csv' has no label for 'x.txt'");
  expectLabels("file,label\nx.txt,z\n", "the label 'z' of 'x.txt' is no class of the model");
  expectLabels("file,label\n\nx.txt\n", "'bad.csv', line 3: expected 2 or more fields but found 1");
  expectLabels("file,label\nx.txt,x\nx.txt,y\n",
               "'bad.csv', line 3: 'x.txt' has the label 'x' already");
  expectLabels("file,label\n\"x.txt,x\n", "'bad.csv', line 3: expected a closing quote");
}

TEST_F(ReduceCommandTest, labelsNeedASoftmax) {
  folder_.write("bn.txt", kBatchNorm);
  const ToolResult result =
      run({"bn.txt", "--sweep", "1", "--frames", "x.txt", "--labels", "labels.csv"});
  EXPECT_EQ(result.status, 1);
  EXPECT_NE(result.err.find("ERROR: --labels needs a model with a softmax, whose outputs are "
                            "posteriors\n"),
            std::string::npos);
}

// Few bits leave hardly any decision as it was.
TEST_F(ReduceCommandTest, theSampleShowsWhereAccuracyFalls) {
  const std::string sample = sourcePath("examples/digits");
  std::vector<std::string> command = {"reduce",   sample + "/synth.txt",  "--sweep", "8..20",
                                      "--labels", sample + "/labels.csv", "--json",  "--frames"};
  for (const fs::directory_entry& entry : fs::directory_iterator(sample + "/frames")) {
    command.push_back(entry.path().string());
  }
  const ToolResult result = runTool(command);
  ASSERT_EQ(result.status, 0) << result.err;
  const auto report = nlohmann::json::parse(result.out);
  EXPECT_EQ(report["frames"], 1460);
  EXPECT_EQ(report["right_recordings"], 28);
  const auto& widths = report["widths"];
  EXPECT_LE(widths.front()["right_recordings"], 5);
  EXPECT_EQ(widths.back()["right_recordings"], 28);
  EXPECT_GE(widths.back()["same_best_class_share"], 0.99);
  double error = 1e9;
  for (const auto& width : widths) {
    EXPECT_LT(width["largest_weight_error"], error);
    error = width["largest_weight_error"];
  }
  EXPECT_GE(report["smallest_width"], 18);
  EXPECT_LE(report["smallest_width"], 20);
}

}  // namespace
