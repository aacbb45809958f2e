#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <regex>
#include <string>
#include <vector>

#include "tests/support/SourceTree.h"
#include "tests/tools/support/ToolProcess.h"

namespace {

using mlnn::test::contentOf;
using mlnn::test::runTool;
using mlnn::test::runToolWith;
using mlnn::test::sourcePath;
using mlnn::test::TempFolder;
using mlnn::test::ToolResult;
using Json = nlohmann::json;

constexpr char kModel[] =
    "MultiLayerNNModel_v2\nsoftmax 1\nnum_layers 1\nlayer 1 size 2 4\nact_fn linear\n"
    "0.5 1 2 3\n-0.5 4 5 6\n";

// Those of GoogleTest know too little on Windows.
MATCHER_P(matchesPattern, pattern, "") { return std::regex_match(arg, std::regex(pattern)); }
MATCHER_P(containsPattern, pattern, "") { return std::regex_search(arg, std::regex(pattern)); }

// The tool with --seconds, since the tests need no exact times.
ToolResult budget(std::vector<std::string> arguments, const std::string& input = "") {
  arguments.insert(arguments.begin(), {"budget", "--seconds", "0.01"});
  return runTool(arguments, input);
}

TEST(BudgetCommandTest, printsWhatAModelNeeds) {
  const ToolResult result = budget({"-"}, kModel);
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.err, "");
  const std::string number = "[0-9.e+-]+";
  const std::string expected(
      "parameters        32 bytes, of which a forward pass reads 32\n"
      "working memory    [0-9]+ bytes for a forward pass\n"
      "on a device       320 bytes for frames that come one by one\n"
      "image file        [0-9]+ bytes\n"
      "image weights     floats in layer 1\n"
      "text file         [0-9]+ bytes\n"
      "multiply-adds     6 a frame\n"
      "activations       2 a frame\n"
      "codes of 8 bits   32 bytes in place of what a forward pass reads, 0 of 1 layer coded\n"
      "codes of 4 bits   32 bytes in place of what a forward pass reads, 0 of 1 layer coded\n"
      "kernels           [A-Z0-9]+, shape [a-z]+ \\(tiles of [0-9] frames, [0-9]+ inputs at once; "
      "weights stream from [0-9]+ bytes on\\)\n"
      "time              " +
      number + " us a frame \\(median; fastest " + number + ", slowest " + number +
      ", [0-9]+ frames\\)\n"
      "load              " +
      number + " % of one core at 100 frames a second\n");
  EXPECT_THAT(result.out, matchesPattern(expected));
}

TEST(BudgetCommandTest, knowsTheSizesOfTheFilesThatConvertMakes) {
  const std::string model = sourcePath("examples/digits/synth-bn.txt");
  const TempFolder folder;
  ASSERT_EQ(runTool({"convert", model, folder.path("image.mlnn")}).status, 0);
  ASSERT_EQ(runTool({"convert", model, folder.path("text.txt")}).status, 0);
  const ToolResult result = budget({"--json", model});
  EXPECT_EQ(result.status, 0);
  const Json json = Json::parse(result.out);
  EXPECT_EQ(json["image_bytes"], contentOf(folder.path("image.mlnn")).size());
  EXPECT_EQ(json["text_bytes"], contentOf(folder.path("text.txt")).size());
  EXPECT_EQ(json["image_weights"], "floats in layers 1-3");
}

TEST(BudgetCommandTest, saysHowAnImageStoresTheWeightsOfEachLayer) {
  const TempFolder folder;
  const std::string reduced = folder.path("reduced.mlnn");
  const std::string digits = sourcePath("examples/digits/synth.txt");
  const auto formsAfter = [&](const std::string& bits) {
    EXPECT_EQ(runTool({"reduce", "--bits", bits, digits, reduced}).status, 0);
    return Json::parse(budget({"--json", reduced}).out)["image_weights"];
  };
  EXPECT_EQ(formsAfter("8"), "bytes in layer 1, half bytes in layers 2-3");
  EXPECT_EQ(formsAfter("3"), "half bytes in layers 1-3");
}

// Only where there are codes.
TEST(BudgetCommandTest, saysWhatPreparingAnImageTakes) {
  const TempFolder folder;
  const std::string quantised = folder.path("quantised.txt");
  const std::string digits = sourcePath("examples/digits/synth.txt");
  ASSERT_EQ(runTool({"quantize", digits, quantised}).status, 0);
  EXPECT_THAT(budget({quantised}).out,
              ::testing::HasSubstr("\nprepared image    172544 bytes of floats besides\n"));
  EXPECT_EQ(Json::parse(budget({"--json", quantised}).out)["prepared_bytes"], 172544);
  EXPECT_EQ(Json::parse(budget({"--json", digits}).out)["prepared_bytes"], 0);
}

TEST(BudgetCommandTest, saysWhatAPassInIntegersNeedsOfQuantisedLayers) {
  const TempFolder folder;
  const std::string quantised = folder.path("quantised.txt");
  const std::string digits = sourcePath("examples/digits/synth.txt");
  ASSERT_EQ(runTool({"quantize", digits, quantised, "--bits", "4"}).status, 0);
  const std::string number = "[0-9.e+-]+";
  EXPECT_THAT(
      budget({quantised}).out,
      containsPattern(
          "\nquantised         4 bits a weight in layers 1-3, and a scale a row: 22312 bytes "
          "in place of 172544, 12.9 %\n"));
  EXPECT_THAT(budget({quantised}).out,
              containsPattern(
                  "\nin integers       [0-9]+ bytes in place of what a forward pass reads, working "
                  "memory [0-9]+ bytes, 3 of 3 layers\n"
                  "time in integers  " +
                  number + " us a frame \\(median; fastest " + number + ", slowest " + number +
                  ", [0-9]+ frames\\)\ntime "));
  const Json integers = Json::parse(budget({"--json", quantised}).out)["in_integers"];
  EXPECT_EQ(integers["integer_layers"], 3);
  EXPECT_GT(integers["bytes"], 22312);
  EXPECT_LT(integers["bytes"], 24000);
  EXPECT_GT(integers["time"]["median_seconds"], 0.0);
  EXPECT_EQ(Json::parse(budget({"--json", digits}).out)["in_integers"], nullptr);
}

TEST(BudgetCommandTest, tellsTheShapeThatTheEnvironmentNames) {
  const ToolResult result = runToolWith("MLNN_KERNEL_SHAPE", "five",
                                        {"budget", "--seconds", "0.01", "--json", "-"}, kModel);
  const Json kernels = Json::parse(result.out)["kernels"];
  if (kernels["shape"] == "small") GTEST_SKIP() << "built for size, there is one shape";
  EXPECT_EQ(kernels["shape"], "five");
  EXPECT_EQ(kernels["tile_frames"], 5);
  EXPECT_EQ(kernels["inputs_at_once"], 256);
  EXPECT_EQ(kernels["streaming_bytes"], 1 << 20);
}

TEST(BudgetCommandTest, givesTheShareOfOneCoreAtTheRate) {
  const Json json = Json::parse(budget({"--json", "--rate", "62.5", "-"}, kModel).out);
  EXPECT_EQ(json["file"], "-");
  EXPECT_EQ(json["multiply_adds"], 6);
  const Json time = json["time"];
  EXPECT_EQ(time["rate"], 62.5);
  EXPECT_GT(time["fastest_seconds"], 0.0);
  EXPECT_LE(time["fastest_seconds"], time["median_seconds"]);
  EXPECT_LE(time["median_seconds"], time["slowest_seconds"]);
  EXPECT_LT(time["median_seconds"], 0.01);
  EXPECT_GT(time["frames"], 4);
  EXPECT_DOUBLE_EQ(time["core_share"].get<double>(), 62.5 * time["median_seconds"].get<double>());
}

// A hundred times the arithmetic takes clearly longer.
TEST(BudgetCommandTest, measuresTheModelItself) {
  const TempFolder folder;
  const auto timeOf = [&folder](const std::string& sizes) {
    const std::string model = folder.path("model.mlnn");
    EXPECT_EQ(runTool({"new", sizes, model}).status, 0);
    return Json::parse(budget({"--json", model}).out)["time"]["median_seconds"].get<double>();
  };
  EXPECT_GT(timeOf("1000,1000"), 5 * timeOf("100,100"));
}

TEST(BudgetCommandTest, refusesModelsThatCannotBeRun) {
  ToolResult result = budget({"-"}, "MultiLayerNNModel_v2\nsoftmax 1\nnum_layers 0\n");
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.out, "");
  EXPECT_EQ(result.err,
            "ERROR: NNFwdPassFromFile::evaluate: model has no layers\n"
            "ERROR: the model cannot be run\n");
  const std::string head = "MultiLayerNNModel_v2\nsoftmax 1\nnum_layers 1\n";
  result = budget({"-"}, head + "layer 1 size 0 2147483647\nact_fn linear\n");
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.out, "");
  EXPECT_EQ(result.err, "ERROR: the model has no outputs\n");
  result = budget({"absent"});
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.err, "ERROR: cannot read 'absent': No such file or directory\n");
}

TEST(BudgetCommandTest, refusesWrongUsage) {
  for (const std::vector<std::string>& arguments :
       std::vector<std::vector<std::string>>{{},
                                             {"-", "--rate", "0"},
                                             {"-", "--rate", "nan"},
                                             {"-", "--rate", "-1"},
                                             {"-", "--seconds", "0"},
                                             {"a", "b"}}) {
    const ToolResult result = budget(arguments, kModel);
    EXPECT_EQ(result.status, 2);
    EXPECT_EQ(result.out, "");
  }
}

}  // namespace
