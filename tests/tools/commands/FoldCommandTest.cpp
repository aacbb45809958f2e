#include <gtest/gtest.h>

#include <filesystem>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "tests/support/DigitsFolder.h"
#include "tests/support/SourceTree.h"
#include "tests/support/TestModels.h"
#include "tests/tools/support/CommandFixture.h"
#include "tools/files/Frames.h"
#include "tools/files/ModelLoading.h"

namespace {

namespace fs = std::filesystem;
using mlnn::test::contentOf;
using mlnn::test::digitsFolder;
using mlnn::test::runTool;
using mlnn::test::sourcePath;
using mlnn::test::TempFolder;
using mlnn::test::ToolResult;
using Names = std::vector<std::string>;

// One batch-norm layer of one input and two outputs.
constexpr char kModel[] =
    "MultiLayerNNModel_v2\nsoftmax 0\nnum_layers 1\nbatch_norm_layer 1 size 2 1\n2\n4\n"
    "gamma_beta\n1\t0\t0.5\t1\n1\t0\t2\t-1\n";
constexpr char kFolded[] =
    "MultiLayerNNModel_v2\nsoftmax 0\nnum_layers 1\nlayer 1 size 2 2\nact_fn linear\n"
    "1\t1\n-1\t8\n";

// With an input of 5, 0.7 * (0.7 * 5) and (0.7 * 0.7) * 5 are neighbouring floats.
constexpr char kRounding[] =
    "MultiLayerNNModel_v2\nsoftmax 0\nnum_layers 1\nbatch_norm_layer 1 size 1 1\n0.7\n"
    "gamma_beta\n1\t0\t0.7\t0\n";

std::vector<std::string> filesIn(const std::string& folder) {
  std::vector<std::string> files;
  for (const fs::directory_entry& entry : fs::directory_iterator(folder)) {
    files.push_back(entry.path().string());
  }
  return files;
}

class FoldCommandTest : public mlnn::test::CommandFixture {
 protected:
  FoldCommandTest() : CommandFixture("fold") {
    folder_.write("in.txt", kModel);
    folder_.write("rounding.txt", kRounding);
    folder_.write("frames.txt", "1\n5\n");
  }
};

TEST_F(FoldCommandTest, writesPlainLayers) {
  const ToolResult result = run({"in.txt", "-"});
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.err, "");
  EXPECT_EQ(result.out, kFolded);
}

// A text has no place for the vectors, and so nothing of use is lost with them.
TEST_F(FoldCommandTest, strictAllowsATextWithoutTheBatchNormVectors) {
  EXPECT_EQ(run({"in.txt", "-", "--strict"}).out, kFolded);
}

TEST_F(FoldCommandTest, anImageKeepsTheBatchNormVectors) {
  ASSERT_EQ(run({"in.txt", "out.mlnn"}).status, 0);
  const mlnn::ModelFile file = mlnn::loadModel(folder_.path("out.mlnn"));
  const NNLayer& layer = *file.model.layers.at(0);
  EXPECT_FALSE(layer.isBatchNorm);
  EXPECT_EQ(layer.gamma_inf, Eigen::Vector2f(0.5f, 2.0f));
  EXPECT_EQ(layer.bias, Eigen::Vector2f(1.0f, -1.0f));
}

TEST_F(FoldCommandTest, plainLayersStayWithAWarning) {
  folder_.write("plain.txt", kFolded);
  const ToolResult result = run({"plain.txt", "-"});
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.err,
            "Warning: request to translate batch norm network but layer is not batch norm: "
            "index=0\n");
  EXPECT_EQ(result.out, kFolded);
}

TEST_F(FoldCommandTest, aLayerWithoutInferenceValuesIsRefused) {
  folder_.write("unfilled.txt",
                "MultiLayerNNModel_v2\nsoftmax 0\nnum_layers 1\nbatch_norm_layer 1 size 1 1\n2\n"
                "gamma_beta\n1\t0\t0\t0\n");
  const ToolResult result = run({"unfilled.txt", "out.txt"});
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.err,
            "ERROR: gamma_inf is zero in layer with index 0.  Can't convert because all weights "
            "will become zero.\n"
            "       Call batch_norm_post_process before attempting to convert a batch norm "
            "network\n"
            "ERROR: nothing written: the model cannot be folded\n");
  EXPECT_FALSE(fs::exists(folder_.path("out.txt")));
}

TEST_F(FoldCommandTest, theProofShowsHowFarApartTheModelsAre) {
  folder_.write("five.txt", "5\n");
  const ToolResult result = run({"rounding.txt", "out.txt", "--prove", "five.txt"});
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.err, "");
  EXPECT_EQ(result.out,
            "stage           values   largest       rms  ulp\n"
            "layer-1-affine       1  2.38e-07  2.38e-07    1\n"
            "layer-1              1  2.38e-07  2.38e-07    1\n"
            "outputs              1  2.38e-07  2.38e-07    1\n"
            "same best class in 1 of 1 frame\n"
            "no difference is over the tolerance of 0.0001\n");
  EXPECT_TRUE(fs::exists(folder_.path("out.txt")));
}

TEST_F(FoldCommandTest, aDifferenceOverTheToleranceIsAFailure) {
  folder_.write("out.txt", "old");
  const Names before = folder_.names();
  const ToolResult result =
      run({"rounding.txt", "out.txt", "--prove", "frames.txt", "--tolerance", "1e-7"});
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.err,
            "ERROR: nothing written: layer-1-affine differs by 2.38e-07 in frame 1, unit 0 of "
            "'frames.txt', which is over the tolerance of 1e-07\n");
  EXPECT_EQ(folder_.names(), before);
  EXPECT_EQ(contentOf(folder_.path("out.txt")), "old");
}

TEST_F(FoldCommandTest, theProofAsJson) {
  const ToolResult result =
      run({"rounding.txt", "out.txt", "--json", "--prove", "frames.txt", "frames.txt"});
  EXPECT_EQ(result.status, 0);
  const auto report = nlohmann::json::parse(result.out);
  EXPECT_EQ(report["proved"], true);
  EXPECT_EQ(report["tolerance"], 1e-4);
  EXPECT_EQ(report["recordings"], 2);
  EXPECT_EQ(report["frames"], 4);
  EXPECT_EQ(report["same_best_class"], 4);
  ASSERT_EQ(report["stages"].size(), 3u);
  EXPECT_EQ(report["stages"][0]["stage"], "layer-1-affine");
  EXPECT_EQ(report["stages"][0]["ulp"], 1);
  EXPECT_EQ(report["stages"][0]["largest"], 2.384185791015625e-07);
  EXPECT_EQ(report["stages"][0]["at"],
            (nlohmann::json{{"recording", "frames.txt"}, {"frame", 1}, {"unit", 0}}));
}

TEST_F(FoldCommandTest, framesThatDoNotFitAreRefused) {
  folder_.write("wide.txt", "1 2\n");
  const ToolResult result = run({"in.txt", "out.txt", "--prove", "wide.txt"});
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.err.substr(0, 51), "ERROR: 'wide.txt' has 2 values in a frame; expected");
  EXPECT_FALSE(fs::exists(folder_.path("out.txt")));
}

TEST_F(FoldCommandTest, proofAndModelCannotShareStandardOutput) {
  const ToolResult result = run({"in.txt", "-", "--prove", "frames.txt"});
  EXPECT_EQ(result.status, 2);
  EXPECT_EQ(result.out, "");
  EXPECT_EQ(result.err, "ERROR: the proof goes to standard output, so OUT cannot go there too\n");
}

TEST_F(FoldCommandTest, optionsOfTheProofNeedIt) {
  EXPECT_EQ(run({"in.txt", "out.txt", "--tolerance", "1"}).status, 2);
  EXPECT_EQ(run({"in.txt", "out.txt", "--json"}).status, 2);
  EXPECT_EQ(run({"in.txt", "out.txt", "--prove", "frames.txt", "--tolerance", "-1"}).status, 2);
  EXPECT_FALSE(fs::exists(folder_.path("out.txt")));
}

TEST_F(FoldCommandTest, theSampleFoldsProvenly) {
  const std::string sample = sourcePath("examples/digits");
  std::vector<std::string> arguments = {sample + "/synth-bn.txt", "out.txt", "--prove"};
  for (const std::string& file : filesIn(sample + "/frames")) arguments.push_back(file);
  const ToolResult result = run(arguments);
  EXPECT_EQ(result.status, 0);
  EXPECT_NE(result.out.find("same best class in 1460 of 1460 frames\n"
                            "no difference is over the tolerance of 0.0001\n"),
            std::string::npos)
      << result.out;
}

class FoldDigitsTest : public FoldCommandTest {
 protected:
  void SetUp() override {
    if (digitsFolder().empty()) GTEST_SKIP() << mlnn::test::kNoDigits;
  }
};

TEST_F(FoldDigitsTest, theFoldedModelIsItsTwinToTheBit) {
  const ToolResult result = run({digitsFolder() + "/digits-bn.txt", "out.txt", "--strict"});
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.err,
            "info: activation of 2 hidden layers set to relu (property hidden_act_fn)\n");
  const mlnn::ModelFile folded = mlnn::loadModel(folder_.path("out.txt"));
  const mlnn::ModelFile twin = mlnn::loadModel(digitsFolder() + "/digits-bn-folded.txt");
  EXPECT_TRUE(mlnn::test::sameLayers(folded.model, twin.model));
}

TEST_F(FoldDigitsTest, theProofHolds) {
  std::vector<std::string> command = {digitsFolder() + "/digits-bn.txt", "out.txt", "--json",
                                      "--prove"};
  const std::vector<std::string> files = filesIn(digitsFolder() + "/frames");
  command.insert(command.end(), files.begin(), files.end());
  const ToolResult result = run(command);
  EXPECT_EQ(result.status, 0) << result.err;
  const auto proof = nlohmann::json::parse(result.out);
  EXPECT_EQ(proof["proved"], true);
  EXPECT_EQ(proof["recordings"], 30);
  EXPECT_EQ(proof["same_best_class"], proof["frames"]);
  EXPECT_EQ(proof["stages"].size(), 7u);  // before and after three activations, and the outputs
  EXPECT_LE(proof["stages"].back()["largest"], 1e-4);
}

TEST_F(FoldDigitsTest, theFoldedModelGivesTheExpectedPosteriors) {
  ASSERT_EQ(run({digitsFolder() + "/digits-bn.txt", "out.mlnn"}).status, 0);
  const TempFolder results;
  std::vector<std::string> command = {"run", "out.mlnn", "-o", results.path()};
  const std::vector<std::string> files = filesIn(digitsFolder() + "/frames");
  command.insert(command.end(), files.begin(), files.end());
  ASSERT_EQ(runTool(command, "", folder_.path()).status, 0);
  for (const std::string& file : files) {
    const std::string name = fs::path(file).filename().string();
    const Eigen::MatrixXf expected = mlnn::readFrames(digitsFolder() + "/posteriors-bn/" + name);
    const Eigen::MatrixXf found = mlnn::readFrames(results.path(name));
    EXPECT_LE((found - expected).array().abs().maxCoeff(), 1e-4f) << name;
  }
}

TEST_F(FoldCommandTest, doesNotReplaceTheRecordingsOfItsProof) {
  expectRefused({"in.txt", "frames.txt", "--prove", "rounding.txt", "frames.txt"}, 2,
                "ERROR: the result would replace its own frames, 'frames.txt'\n");
  EXPECT_EQ(contentOf(folder_.path("frames.txt")), "1\n5\n");
}

}  // namespace
