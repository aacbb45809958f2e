#include <gtest/gtest.h>

#include <filesystem>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "tests/support/DigitsFolder.h"
#include "tests/tools/support/CommandFixture.h"

namespace {

namespace fs = std::filesystem;
using mlnn::test::digitsFolder;
using mlnn::test::runTool;
using mlnn::test::ToolResult;
using Json = nlohmann::json;

constexpr char kModel[] =
    "MultiLayerNNModel_v2\nsoftmax 0\n# made by hand\n# NVP labels yes,no\n"
    "num_layers 2\n"
    "layer 1 size 2 3\nact_fn relu\n0 1 0\n0 0 1\n"
    "layer 2 size 2 3\nact_fn linear\n0 1 0\n0 0 1\n";

// The same with another label, a longer history and another bias in layer 2.
constexpr char kOther[] =
    "MultiLayerNNModel_v2\nsoftmax 0\n# made by hand\n# changed\x1b by hand\n"
    "# NVP labels yes,maybe\n"
    "num_layers 2\n"
    "layer 1 size 2 3\nact_fn relu\n0 1 0\n0 0 1\n"
    "layer 2 size 2 3\nact_fn linear\n0 1 0\n0.5 0 1\n";

// A batch-norm layer, and the plain one that it folds into.
constexpr char kBatchNorm[] =
    "MultiLayerNNModel_v2\nsoftmax 1\nnum_layers 1\n"
    "batch_norm_layer 1 size 2 2\n1 2\n3 4\ngamma_beta\n1 0 2 0.25\n1 0 0.5 1\n";
constexpr char kFolded[] =
    "MultiLayerNNModel_v2\nsoftmax 1\nnum_layers 1\n"
    "layer 1 size 2 3\nact_fn linear\n0.25 2 4\n1 1.5 2\n";

class DiffCommandTest : public mlnn::test::CommandFixture {
 protected:
  DiffCommandTest() : CommandFixture("diff") {
    folder_.write("model", kModel);
    folder_.write("other", kOther);
    folder_.write("bn", kBatchNorm);
    folder_.write("folded", kFolded);
    folder_.write("frames", "1 2\n3 -4\n5 6\n");
  }
};

TEST_F(DiffCommandTest, findsAModelSameAsItself) {
  const ToolResult result = run({"model", "model"});
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.out, "--- model\n+++ model\nwhat the models say: same\nnumbers: same\n");
  EXPECT_EQ(result.err, "");
}

TEST_F(DiffCommandTest, tellsWhatTheModelsSayAndTheirNumbers) {
  const ToolResult result = run({"model", "other"});
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.out,
            "--- model\n"
            "+++ other\n"
            "what the models say: 2 differences\n"
            "+ note 2: changed\\x1b by hand\n"
            "- property labels: yes,no\n"
            "+ property labels: yes,maybe\n"
            "numbers: different in 1 of 2 layers\n"
            "layer  array    values  differ  largest    rms         ulp  cosine\n"
            "    1  weights       4       0        0      0           0       1\n"
            "    1  bias          2       0        0      0           0       1\n"
            "    2  weights       4       0        0      0           0       1\n"
            "    2  bias          2       1      0.5  0.354  1056964608       0\n");
  EXPECT_EQ(result.err, "");
}

TEST_F(DiffCommandTest, namesTheFirstStageThatDiverges) {
  folder_.write("more", "0 0\n");
  const ToolResult result = run({"model", "other", "--frames", "frames", "more"});
  EXPECT_EQ(result.status, 1);
  const std::string behaviour = result.out.substr(result.out.find("behaviour"));
  EXPECT_EQ(behaviour,
            "behaviour: the outputs differ by more than 0.0001 over 2 recordings, 4 frames\n"
            "stage           values  largest    rms         ulp    cosine\n"
            "inputs               2        0      0           0         1\n"
            "layer-1-affine       2        0      0           0         1\n"
            "layer-1              2        0      0           0         1\n"
            "layer-2-affine       2      0.5  0.354  1056964608  0.995306\n"
            "layer-2              2      0.5  0.354  1056964608  0.995306\n"
            "outputs              2      0.5  0.354  1056964608  0.995306\n"
            "first to diverge: layer-2-affine, by 0.5 at frame 0 of 'frames', unit 1\n"
            "same best class: 3 of 4 frames\n");
}

TEST_F(DiffCommandTest, toleratesAsMuchAsItIsTold) {
  const ToolResult result =
      run({"model", "other", "--frames", "frames", "--tolerance", "0.5", "--json"});
  EXPECT_EQ(result.status, 1);  // the numbers differ all the same
  const Json behaviour = Json::parse(result.out)["behaviour"];
  EXPECT_EQ(behaviour["same"], true);
  EXPECT_EQ(behaviour["tolerance"], 0.5);
  EXPECT_EQ(behaviour["first_to_diverge"], nullptr);
  EXPECT_EQ(
      Json::parse(run({"model", "other", "--frames", "frames", "--tolerance", "0.49", "--json"})
                      .out)["behaviour"]["first_to_diverge"],
      "layer-2-affine");
}

TEST_F(DiffCommandTest, tellsABatchNormModelFromItsTwinInNumbersAndNotInBehaviour) {
  const ToolResult result = run({"bn", "folded", "--frames", "frames"});
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.out,
            "--- bn\n"
            "+++ folded\n"
            "what the models say: 1 difference\n"
            "- layer 1: 2 inputs, 2 outputs, batch norm, linear\n"
            "+ layer 1: 2 inputs, 2 outputs, plain, linear\n"
            "numbers: different in 1 of 1 layer\n"
            "layer  array              values  differ  largest   rms      ulp    cosine\n"
            "    1  weights                 4       4        2  1.68  8388608  0.801784\n"
            "    1  effective weights       4       0        0     0        0         1\n"
            "    1  effective bias          2       0        0     0        0         1\n"
            "effective: the affine map that a batch-norm layer computes, beside that of a plain "
            "one\n"
            "behaviour: the outputs agree within 0.0001 over 1 recording, 3 frames\n"
            "stage           values  largest  rms  ulp  cosine\n"
            "inputs               2        0    0    0       1\n"
            "layer-1-affine       2        0    0    0       1\n"
            "layer-1              2        0    0    0       1\n"
            "outputs              2        0    0    0       1\n"
            "first to diverge: none\n"
            "same best class: 3 of 3 frames\n");
}

TEST_F(DiffCommandTest, takesEitherFormatForTheSame) {
  ASSERT_EQ(runTool({"convert", "folded", "folded.mlnn"}, "", folder_.path()).status, 0);
  const ToolResult result = run({"folded", "folded.mlnn"});
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.out, "--- folded\n+++ folded.mlnn\nwhat the models say: same\nnumbers: same\n");
  EXPECT_EQ(run({"folded.mlnn", "-"}, kFolded).status, 0);
}

TEST_F(DiffCommandTest, printsNothingWhenQuiet) {
  for (const char* other : {"model", "other"}) {
    const ToolResult result = run({"--quiet", "model", other});
    EXPECT_EQ(result.status, std::string(other) == "model" ? 0 : 1);
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(result.err, "");
  }
}

TEST_F(DiffCommandTest, comparesModelsOfOtherShapes) {
  folder_.write("deep",
                "MultiLayerNNModel_v2\nsoftmax 0\n# made by hand\n# NVP labels yes,no\n"
                "num_layers 3\n"
                "layer 1 size 1 3\nact_fn relu\n0 1 0\n"
                "layer 2 size 2 2\nact_fn linear\n0 1\n0 1\n"
                "layer 3 size 2 3\nact_fn linear\n0 1 0\n0 0 1\n");
  const ToolResult result = run({"model", "deep", "--frames", "frames"});
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.out,
            "--- model\n"
            "+++ deep\n"
            "what the models say: 3 differences\n"
            "- layer 1: 2 inputs, 2 outputs, plain, relu\n"
            "+ layer 1: 2 inputs, 1 output, plain, relu\n"
            "- layer 2: 2 inputs, 2 outputs, plain, linear\n"
            "+ layer 2: 1 input, 2 outputs, plain, linear\n"
            "+ layer 3: 2 inputs, 2 outputs, plain, linear\n"
            "numbers: different in 2 of 2 layers\n"
            "layer 1: the shapes differ, so the numbers cannot be compared\n"
            "layer 2: the shapes differ, so the numbers cannot be compared\n"
            "behaviour: the outputs differ by more than 0.0001 over 1 recording, 3 frames\n"
            "stage           values  largest   rms         ulp    cosine\n"
            "inputs               2        0     0           0         1\n"
            "layer-1-affine   2 | 1        -     -           -         -\n"
            "layer-1          2 | 1        -     -           -         -\n"
            "layer-2-affine       2        3  1.35  1077936128  0.924688\n"
            "layer-2              2        3  1.35  1077936128  0.924688\n"
            "outputs              2        3  1.35  1077936128  0.924688\n"
            "first to diverge: layer-1-affine, where one model has 2 values and the other 1\n"
            "same best class: 1 of 3 frames\n");
}

TEST_F(DiffCommandTest, seesWhatIsNotANumber) {
  folder_.write("huge",
                "MultiLayerNNModel_v2\nsoftmax 0\nnum_layers 1\n"
                "layer 1 size 1 3\nact_fn linear\n0 3e38 3e38\n");
  folder_.write("small",
                "MultiLayerNNModel_v2\nsoftmax 0\nnum_layers 1\n"
                "layer 1 size 1 3\nact_fn linear\n0 1 1\n");
  const ToolResult result = run({"huge", "small", "--frames", "frames", "--json"});
  EXPECT_EQ(result.status, 1);
  const Json stage = Json::parse(result.out)["behaviour"]["stages"][1];
  EXPECT_EQ(stage["stage"], "layer-1-affine");
  EXPECT_EQ(stage["diverges"], true);
  EXPECT_EQ(stage["difference"]["largest"], nullptr);
}

constexpr char kWide[] =
    "MultiLayerNNModel_v2\nsoftmax 0\nnum_layers 1\nlayer 1 size 1 4\nact_fn linear\n"
    "0.5 7 1.2 -3\n";

TEST_F(DiffCommandTest, tellsThatAModelIsTheOtherQuantised) {
  folder_.write("wide", kWide);
  ASSERT_EQ(runTool({"quantize", "wide", "small", "--bits", "4"}, "", folder_.path()).status, 0);
  const ToolResult result = run({"wide", "small"});
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.out.substr(result.out.find("quantised")),
            "quantised: the numbers of the second model are those of the first, rounded by rows to "
            "4 bits in layer 1\n");
  EXPECT_NE(run({"small", "wide"})
                .out.find("\nquantised: the numbers of the first model are those of the second, "
                          "rounded by rows to 4 bits in layer 1\n"),
            std::string::npos);
  EXPECT_EQ(run({"model", "other"}).out.find("quantised"), std::string::npos);

  const Json json = Json::parse(run({"wide", "small", "--json"}).out);
  EXPECT_EQ(json["quantisation"], Json::parse(R"({"quantised": "b", "layers": [
                {"layer": 1, "bits": 4, "scales": "largest", "folded": false,
                 "other_bias": false}]})"));
  EXPECT_EQ(Json::parse(run({"model", "other", "--json"}).out)["quantisation"], nullptr);
}

TEST_F(DiffCommandTest, reportsInJson) {
  const ToolResult result = run({"model", "other", "--json", "--frames", "frames"});
  EXPECT_EQ(result.status, 1);
  const Json json = Json::parse(result.out);
  EXPECT_EQ(json["a"], "model");
  EXPECT_EQ(json["b"], "other");
  EXPECT_EQ(json["same"], false);
  EXPECT_EQ(json["statements"], Json::parse(R"({"same": false, "differences": [
                {"what": "note 2", "a": null, "b": "changed\u001b by hand"},
                {"what": "property labels", "a": "yes,no", "b": "yes,maybe"}]})"));
  EXPECT_EQ(json["numbers"]["same"], false);
  EXPECT_EQ(json["numbers"]["layers"][0]["same"], true);
  EXPECT_EQ(json["numbers"]["layers"][1]["arrays"]["bias"]["largest"], 0.5);
  EXPECT_EQ(json["behaviour"]["same"], false);
  EXPECT_EQ(json["behaviour"]["frames"], 3);
  EXPECT_EQ(json["behaviour"]["first_to_diverge"], "layer-2-affine");
  EXPECT_EQ(json["behaviour"]["stages"][3]["place"],
            Json::parse(R"({"recording": "frames", "frame": 0, "unit": 1})"));

  const Json same = Json::parse(run({"model", "model", "--json"}).out);
  EXPECT_EQ(same["same"], true);
  EXPECT_EQ(same["behaviour"], nullptr);
}

TEST_F(DiffCommandTest, holdsBytesThatJsonCannot) {
  folder_.write("bytes", "MultiLayerNNModel_v2\nsoftmax 1\n# \xff\nnum_layers 0\n");
  folder_.write("empty", "MultiLayerNNModel_v2\nsoftmax 1\nnum_layers 0\n");
  const ToolResult json = run({"--json", "bytes", "empty"});
  EXPECT_EQ(json.status, 1);
  EXPECT_EQ(Json::parse(json.out)["statements"]["differences"][0]["a"], "\xef\xbf\xbd");
  EXPECT_EQ(run({"bytes", "empty"}).out,
            "--- bytes\n+++ empty\nwhat the models say: 1 difference\n- note 1: \\xff\n"
            "numbers: no layers to compare\n");
}

TEST_F(DiffCommandTest, isInTroubleWithFilesItCannotUse) {
  folder_.write("broken", "no model\n");
  struct Case {
    std::vector<std::string> arguments;
    std::string message;
  };
  const Case cases[] = {
      {{"model", "absent"}, "ERROR: cannot read 'absent': No such file or directory\n"},
      {{"broken", "model"},
       "ERROR: MultiLayerNNModel::deserializeAscii: Invalid neural network model file. Didn't "
       "find expected header on first line.\nERROR: could not load the model 'broken'\n"},
      {{"model", "other", "--frames", "absent"},
       "ERROR: cannot read 'absent': No such file or directory\n"},
      {{"model", "other", "--frames", "broken"},
       "ERROR: 'broken', line 1, column 1: expected a number, found 'no'\n"},
      {{"-", "-"}, "ERROR: only one of the files can be the standard input\n"},
      {{"-", "model", "--frames", "-"}, "ERROR: only one of the files can be the standard input\n"},
  };
  for (const Case& trouble : cases) {
    const ToolResult result = run(trouble.arguments);
    EXPECT_EQ(result.status, 2) << trouble.message;
    EXPECT_EQ(result.err, trouble.message);
    EXPECT_EQ(result.out, "");
  }
}

TEST_F(DiffCommandTest, isInTroubleWithFramesOfAnotherWidth) {
  folder_.write("wide", "1 2 3\n");
  const ToolResult result = run({"model", "other", "--frames", "wide"});
  EXPECT_EQ(result.status, 2);
  EXPECT_EQ(result.out, "");
  EXPECT_EQ(result.err,
            "ERROR: 'wide' has 3 values in a frame; expected 2 (input vectors); the model does "
            "not tell the width of single frames\n");
}

TEST_F(DiffCommandTest, refusesWrongUsage) {
  const std::vector<std::vector<std::string>> wrong = {
      {},
      {"model"},
      {"model", "other", "third"},
      {"model", "other", "--tolerance", "1"},
      {"model", "other", "--stacked"},
      {"model", "other", "--json", "--quiet"},
      {"model", "other", "--frames", "frames", "--tolerance", "-1"},
      {"model", "other", "--frames", "frames", "--tolerance", "nan"},
      {"model", "other", "--frames", "frames", "--tolerance", "1x"},
  };
  for (const std::vector<std::string>& arguments : wrong) {
    const ToolResult result = run(arguments);
    EXPECT_EQ(result.status, 2);
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(result.err.substr(0, 7), "ERROR: ");
  }
}

// Long recordings are run in pieces, which cover the same frames for both models even
// where their windows differ.
TEST_F(DiffCommandTest, runsModelsOfTwoWindowsInStep) {
  std::string longRecording;
  for (int frame = 0; frame < 700; ++frame) longRecording += std::to_string(frame) + "\n";
  folder_.write("long", longRecording);
  const auto modelWithWindow = [](const std::string& left, const std::string& right,
                                  const std::string& row) {
    return "MultiLayerNNModel_v2\nsoftmax 0\n# nn_tune feat_desc mel_deltas:bands=1,left=" + left +
           ",right=" + right + ",deltas=0,line_kernels=0,line_kernel_width=0\n" +
           "num_layers 1\nlayer 1 size 1 " + row + "\n";
  };
  // Both give the current frame, the first out of three frames, the second out of two.
  folder_.write("three", modelWithWindow("1", "1", "4\nact_fn linear\n0 0 1 0"));
  folder_.write("two", modelWithWindow("0", "1", "3\nact_fn linear\n0 1 0"));
  const Json json = Json::parse(
      runTool({"diff", "--json", "three", "two", "--frames", "long"}, "", folder_.path()).out);
  EXPECT_EQ(json["behaviour"]["same"], true);
  EXPECT_EQ(json["behaviour"]["frames"], 700);
  EXPECT_EQ(json["behaviour"]["first_to_diverge"], "inputs");
  EXPECT_EQ(json["behaviour"]["stages"][1]["difference"]["values"], 700);
  EXPECT_EQ(json["behaviour"]["stages"][1]["difference"]["largest"], 0);
}

TEST(DiffCommandOnDigits, tellsTheBatchNormModelFromItsFoldedTwin) {
  const std::string digits = digitsFolder();
  if (digits.empty()) GTEST_SKIP() << mlnn::test::kNoDigits;
  std::vector<std::string> command = {"diff", "--json", digits + "/digits-bn.txt",
                                      digits + "/digits-bn-folded.txt", "--frames"};
  for (const auto& entry : fs::directory_iterator(digits + "/frames")) {
    command.push_back(entry.path().string());
  }
  const ToolResult result = runTool(command);
  EXPECT_EQ(result.status, 1);
  const Json json = Json::parse(result.out);
  ASSERT_EQ(json["numbers"]["layers"].size(), 3u);
  for (const Json& layer : json["numbers"]["layers"]) {
    EXPECT_EQ(layer["same"], false);
    EXPECT_EQ(layer["same_kind"], false);
    EXPECT_GT(layer["arrays"]["weights"]["differing"], 0);
    EXPECT_EQ(layer["arrays"]["effective weights"]["differing"], 0);
    EXPECT_EQ(layer["arrays"]["effective bias"]["differing"], 0);
  }
  EXPECT_EQ(json["behaviour"]["recordings"], 30);
  EXPECT_EQ(json["behaviour"]["same"], true);
  EXPECT_EQ(json["behaviour"]["first_to_diverge"], nullptr);
  EXPECT_EQ(json["behaviour"]["same_best_class"], json["behaviour"]["frames"]);
}

}  // namespace
