#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/tools/support/ToolProcess.h"
#include "tools/files/ModelLoading.h"

namespace {

using mlnn::test::contentOf;
using mlnn::test::runTool;
using mlnn::test::TempFolder;
using mlnn::test::ToolResult;
using Names = std::vector<std::string>;

constexpr char kNoFeatures[] =
    "# nn_tune feat_desc "
    "mel_deltas:bands=0,left=0,right=0,deltas=0,line_kernels=0,line_kernel_width=0\n";

ToolResult make(const std::vector<std::string>& arguments) {
  std::vector<std::string> command = {"new"};
  command.insert(command.end(), arguments.begin(), arguments.end());
  return runTool(command);
}

void expectRefused(std::vector<std::string> arguments, int status, const std::string& message) {
  const TempFolder folder;
  arguments.push_back(folder.path("out.txt"));
  const ToolResult result = make(arguments);
  EXPECT_EQ(result.status, status);
  EXPECT_EQ(result.err, message);
  EXPECT_EQ(folder.names(), Names{});
}

MultiLayerNNModel madeWith(const std::vector<std::string>& arguments) {
  const ToolResult result = make(arguments);
  EXPECT_EQ(result.status, 0) << result.err;
  mlnn::ModelFile file;
  std::vector<mlnn::Message> messages;
  EXPECT_TRUE(mlnn::parseModel(result.out, file, messages));
  return std::move(file.model);
}

TEST(NewCommandTest, zerosHaveReluInHiddenLayersAndASoftmax) {
  const ToolResult result = make({"2,2,1", "-", "--zero"});
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.out, "MultiLayerNNModel_v2\nsoftmax 1\n" + std::string(kNoFeatures) +
                            "num_layers 2\n"
                            "layer 1 size 2 3\nact_fn relu\n0\t0\t0\n0\t0\t0\n"
                            "layer 2 size 1 3\nact_fn linear\n0\t0\t0\n");
}

TEST(NewCommandTest, activationAndSoftmaxAreChosen) {
  const ToolResult result = make({"1,1,1", "-", "--zero", "--act-fn", "tanh", "--softmax", "off"});
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.out, "MultiLayerNNModel_v2\nsoftmax 0\n" + std::string(kNoFeatures) +
                            "num_layers 2\n"
                            "layer 1 size 1 2\nact_fn tanh\n0\t0\n"
                            "layer 2 size 1 2\nact_fn linear\n0\t0\n");
}

TEST(NewCommandTest, batchNormLayersGetNoInferenceValues) {
  const MultiLayerNNModel model = madeWith({"3,4,2", "-", "--batch-norm", "--act-fn", "silu"});
  ASSERT_EQ(model.layers.size(), 2u);
  for (const NNLayer* layer : model.layers) {
    EXPECT_TRUE(layer->isBatchNorm);
    EXPECT_TRUE((layer->weights.array() != 0).all());
    EXPECT_TRUE((layer->gamma.array() == 1).all());
    EXPECT_TRUE((layer->gamma_inf.array() == 0).all());
    EXPECT_TRUE((layer->beta_inf.array() == 0).all());
  }
  EXPECT_EQ(model.getProp("hidden_act_fn"), "silu");
}

TEST(NewCommandTest, randomWeightsRepeat) {
  const auto textOf = [](const std::vector<std::string>& more) {
    std::vector<std::string> arguments = {"5,4,3", "-"};
    arguments.insert(arguments.end(), more.begin(), more.end());
    return make(arguments).out;
  };
  EXPECT_EQ(textOf({}), textOf({}));
  EXPECT_EQ(textOf({"--seed", "7"}), textOf({"--seed", "7"}));
  EXPECT_NE(textOf({"--seed", "7"}), textOf({"--seed", "8"}));
  EXPECT_NE(textOf({"--seed", "7"}), textOf({}));
}

TEST(NewCommandTest, theScaleIsTheStandardDeviation) {
  const MultiLayerNNModel one = madeWith({"100,100", "-", "--scale", "1"});
  const Eigen::MatrixXf& weights = one.layers[0]->weights;
  const float variance = weights.array().square().mean();
  EXPECT_GT(variance, 0.9f);
  EXPECT_LT(variance, 1.1f);
  const MultiLayerNNModel half = madeWith({"100,100", "-", "--scale", "0.5"});
  EXPECT_EQ(half.layers[0]->weights, weights * 0.5f);
  EXPECT_TRUE((half.layers[0]->bias.array() == 0).all());
}

TEST(NewCommandTest, theFeaturesAreStated) {
  const std::string text =
      "mel_deltas:bands=3,left=1,right=0,deltas=0,line_kernels=0,line_kernel_width=0";
  EXPECT_EQ(make({"6,1", "-", "--zero", "--features", text}).out,
            "MultiLayerNNModel_v2\nsoftmax 1\n# nn_tune feat_desc " + text +
                "\nnum_layers 1\nlayer 1 size 1 7\nact_fn linear\n0\t0\t0\t0\t0\t0\t0\n");
  expectRefused({"7,1", "--features", text}, 2,
                "ERROR: --features: " + text +
                    " makes input vectors of 6 values, but the model has 7 inputs\n");
  expectRefused({"7,1", "--features", "mel"}, 2,
                "ERROR: --features: expected mel_deltas:bands=B,left=L,right=R,deltas=0|1,"
                "line_kernels=0|1,line_kernel_width=W but found 'mel'\n");
}

TEST(NewCommandTest, writesAnImageByItsName) {
  const TempFolder folder;
  const ToolResult result = make({"4,2", folder.path("model.mlnn"), "--strict"});
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.err,
            "info: a normalisation that changes nothing is added, since an image needs one\n");
  EXPECT_EQ(contentOf(folder.path("model.mlnn")).substr(0, 4), "MLNN");
}

TEST(NewCommandTest, refusesWhatAreNoSizes) {
  for (const std::string sizes :
       {"", "4", "4,", ",4", "4,,2", "4,0", "4,-2", "4, 2", "4,2x", "4,2147483648", "4.5,2"}) {
    expectRefused({sizes}, 2,
                  "ERROR: expected two or more sizes of 1 to 2147483647, as in 360,512,40, but "
                  "found '" +
                      sizes + "'\n");
  }
}

TEST(NewCommandTest, refusesSizesThatNoImageHoldsBeforeItMakesThem) {
  const std::string message =
      "ERROR: the parameters would take more than 2147483647 bytes, which is the most that a "
      "binary image can hold\n";
  expectRefused({"2147483647,2147483647,2147483647"}, 1, message);
  expectRefused({"100000,100000"}, 1, message);
  expectRefused({"1,200000000", "--batch-norm"}, 1, message);
}

TEST(NewCommandTest, refusesOptionsThatMakeNoSense) {
  const std::string hint = "Run with --help for more information.\n";
  expectRefused({"4,2", "--scale", "0"}, 2,
                "ERROR: --scale: expected a number above 0 but found '0'\n" + hint);
  expectRefused({"4,2", "--scale", "nan"}, 2,
                "ERROR: --scale: expected a number above 0 but found 'nan'\n" + hint);
  expectRefused({"4,2", "--act-fn", "rel"}, 2,
                "ERROR: --act-fn: expected one of linear, sigmoid, tanh, relu, leaky_relu, elu, "
                "softplus, silu but found 'rel'\n" +
                    hint);
  expectRefused({"4,2", "--zero", "--seed", "3"}, 2, "ERROR: --zero excludes --seed\n" + hint);
  EXPECT_EQ(make({"4,2", "-", "--softmax", "maybe"}).status, 2);
  EXPECT_EQ(make({"4,2", "-", "--seed", "-1"}).status, 2);
}

}  // namespace
