#include <gtest/gtest.h>

#include <algorithm>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "tests/support/ByteImage.h"
#include "tests/support/SourceTree.h"
#include "tests/support/TempFolder.h"
#include "tests/support/TestModels.h"
#include "tests/tools/support/ToolBuild.h"
#include "tests/tools/support/ToolProcess.h"

namespace {

using Json = nlohmann::json;
using mlnn::test::ByteImage;
using mlnn::test::normalisationLine;
using mlnn::test::runTool;
using mlnn::test::ToolResult;

constexpr char kModel[] =
    "MultiLayerNNModel_v2\nsoftmax 0\n"
    "# made by \x1b]0;hand\a\n"
    "# nn_tune feat_desc mel_deltas:bands=2,left=1,right=0,deltas=0,line_kernels=0,"
    "line_kernel_width=0\n"
    "# NVP na\x1bme v\xc3\xa4lue\x7f\n"
    "loss 2\n0.5 0.25\naccuracy 1\n0.75\n"
    "num_layers 2\nlayer 1 size 3 5\nact_fn relu\n0 1 2 3 4\n0 1 2 3 4\n0 1 2 3 4\n"
    "batch_norm_layer 2 size 1 3\n1 2 3\ngamma_beta\n1 2 3 4\n";

TEST(InfoCommandTest, saysWhatIsInAText) {
  const ToolResult result = runTool({"info", "-"}, kModel);
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.err, "");
  const std::string memory = result.out.substr(0, result.out.find(" bytes in memory"));
  const std::string bytes = memory.substr(memory.rfind(' ') + 1);
  const std::size_t checksum = result.out.find("checksum        ") + 16;
  const std::string sum = result.out.substr(checksum, result.out.find('\n', checksum) - checksum);
  EXPECT_EQ(result.out,
            "file            -\n"
            "format          text, version 2, 326 bytes\n"
            "shape           inputs 4 x 3 bn 1 output classes\n"
            "parameters      22, " +
                bytes +
                " bytes in memory\n"
                "checksum        " +
                sum +
                "\n"
                "softmax         off\n"
                "features        mel_deltas:bands=2,left=1,right=0,deltas=0,line_kernels=0,"
                "line_kernel_width=0 (4 inputs)\n"
                "normalisation   none\n"
                "loss            2 values, first 0.5, last 0.25\n"
                "accuracy        1 value, first 0.75, last 0.75\n"
                "\n"
                "layer  inputs  outputs  kind        activation  parameters  image weights\n"
                "    1       4        3  plain       relu                15  half bytes\n"
                "    2       3        1  batch norm  linear               7  floats\n"
                "\n"
                "properties\n"
                "  na\\x1bme = v\xc3\xa4lue\\x7f\n"
                "\n"
                "notes\n"
                "  made by \\x1b]0;hand\\x07\n"
                "  nn_tune feat_desc mel_deltas:bands=2,left=1,right=0,deltas=0,line_kernels=0,"
                "line_kernel_width=0\n");
}

TEST(InfoCommandTest, tellsOfTheNormalisation) {
  const auto normalisation = [](const std::string& minvals, const std::string& normvals) {
    std::string model = kModel;
    model.insert(model.find("# made"), minvals + normvals);
    const std::string out = runTool({"info", "-"}, model).out;
    const std::size_t at = out.find("normalisation");
    return out.substr(at, out.find('\n', at) - at);
  };
  EXPECT_EQ(normalisation(normalisationLine("minvals", "-11.512925", "2.345678912"),
                          normalisationLine("normvals", "0.1234567", "1234567.5")),
            "normalisation   120 values: minvals -11.5129 to 2.34568, normvals 0.123457 to "
            "1.23457e+06");
  EXPECT_EQ(normalisation(normalisationLine("minvals", "0", "0"),
                          normalisationLine("normvals", "1", "1")),
            "normalisation   changes nothing");
  EXPECT_EQ(normalisation(normalisationLine("minvals", "0.5", "0"), ""),
            "normalisation   120 values: minvals 0 to 0.5, normvals 1 to 1");
  EXPECT_EQ(normalisation("", normalisationLine("normvals", "1", "2")),
            "normalisation   120 values: minvals 0 to 0, normvals 1 to 2");
}

TEST(InfoCommandTest, countsTheMemoryOfTheArrays) {
  const ToolResult small = runTool({"info", "--json", "-"}, kModel);
  std::string larger = kModel;
  larger.replace(larger.find("loss 2\n0.5 0.25"), 15, "loss 3\n0.5 0.25 0");
  const ToolResult large = runTool({"info", "--json", "-"}, larger);
  const auto bytesOf = [](const ToolResult& result) {
    return Json::parse(result.out)["memory_bytes"].get<int>();
  };
  EXPECT_EQ(bytesOf(large) - bytesOf(small), 4);
  EXPECT_GT(bytesOf(small), 22 * 4 + 3 * 4);
}

TEST(InfoCommandTest, printsTheSameAsJson) {
  const ToolResult result = runTool({"info", "--json", "-"}, kModel);
  EXPECT_EQ(result.status, 0);
  for (const char c : result.out) EXPECT_TRUE((c >= ' ' && c < '\x7f') || c == '\n');
  Json json = Json::parse(result.out);
  EXPECT_GT(json["memory_bytes"], 0);
  json.erase("memory_bytes");
  EXPECT_GT(json["checksum"], 0);
  json.erase("checksum");
  EXPECT_EQ(json, Json::parse(R"({
    "file": "-", "format": "ascii", "version": 2, "bytes": 326,
    "inputs": 4, "outputs": 1, "softmax": false,
    "layers": [
      {"kind": "plain", "inputs": 4, "outputs": 3, "activation": "relu", "parameters": 15,
        "image_weights": "half bytes", "image_weight_bytes": 32, "row_bits": null},
      {"kind": "batch_norm", "inputs": 3, "outputs": 1, "activation": "linear", "parameters": 7,
        "image_weights": "floats", "image_weight_bytes": 12, "row_bits": null}],
    "parameters": 22,
    "features": {"text": "mel_deltas:bands=2,left=1,right=0,deltas=0,line_kernels=0,line_kernel_width=0",
      "type": 0, "bands": 2, "left": 1, "right": 0, "deltas": false, "line_kernels": false,
      "line_kernel_width": 0, "frame_length": 2, "length": 4},
    "normalisation": {"minvals": [], "normvals": []},
    "properties": {"na\u001bme": "välue\u007f"},
    "notes": ["made by \u001b]0;hand\u0007",
      "nn_tune feat_desc mel_deltas:bands=2,left=1,right=0,deltas=0,line_kernels=0,line_kernel_width=0"],
    "loss": [0.5, 0.25], "accuracy": [0.75]})"));
}

TEST(InfoCommandTest, saysToHowManyBitsWeightsAreQuantised) {
  const mlnn::test::TempFolder folder;
  const std::string quantised = folder.path("quantised.mlnn");
  const std::string digits = mlnn::test::sourcePath("examples/digits/synth.txt");
  ASSERT_EQ(runTool({"quantize", digits, quantised, "--bits", "6"}).status, 0);
  EXPECT_NE(
      runTool({"info", quantised})
          .out.find("\nquantised       6 bits a weight in layers 1-3, and a scale a row: 44072 "
                    "bytes in place of 172544, 25.5 %\n"),
      std::string::npos);
  const Json layer = Json::parse(runTool({"info", "--json", quantised}).out)["layers"][2];
  EXPECT_EQ(layer["image_weights"], "bytes by rows");
  EXPECT_EQ(layer["image_weight_bytes"], 10 * 4 + 64 * 16);
  EXPECT_EQ(layer["row_bits"], 6);
  EXPECT_EQ(runTool({"info", digits}).out.find("quantised"), std::string::npos);
}

TEST(InfoCommandTest, saysWhatIsInAnImage) {
  const MultiLayerNNModel model = mlnn::test::imageModel();
  const ByteImage image = ByteImage::of(model);
  const ToolResult result = runTool({"info", "--json", "-"}, image.bytes());
  EXPECT_EQ(result.status, 0);
  const Json json = Json::parse(result.out);
  EXPECT_EQ(json["format"], "binary");
  EXPECT_EQ(json["version"], nullptr);
  EXPECT_EQ(json["bytes"], image.size());
  EXPECT_EQ(json["checksum"], model.checksum());
  EXPECT_EQ(json["normalisation"]["minvals"].size(), 120u);
}

TEST(InfoCommandTest, bytesThatAreNotUtf8DoNotBreakJson) {
  const ToolResult result = runTool({"info", "--json", "-"},
                                    "MultiLayerNNModel\n# NVP a\xff b\x9b\n# \x80\nnum_layers 0\n");
  EXPECT_EQ(result.status, 0);
  const Json json = Json::parse(result.out);
  EXPECT_EQ(json["properties"]["a\xef\xbf\xbd"], "b\xef\xbf\xbd");
}

TEST(InfoCommandTest, longNotesAreShortenedBetweenCharacters) {
  const std::string note = std::string(159, 'x') + "\xc3\xa4" + std::string(100, 'y');
  const ToolResult result =
      runTool({"info", "-"}, "MultiLayerNNModel\n# " + note + "\nnum_layers 0\n");
  EXPECT_NE(result.out.find("\n  " + std::string(159, 'x') + "... (261 bytes)\n"),
            std::string::npos)
      << result.out;
}

TEST(InfoCommandTest, aModelThatDoesNotLoadIsAFailure) {
  const ToolResult result = runTool({"info", "-"}, "MLN");
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.out, "");
  EXPECT_EQ(result.err,
            "ERROR: MultiLayerNNModel: Could not read header\n"
            "ERROR: could not load the model standard input\n");
}

// --- Several models ---

TEST(InfoCommandTest, tellsOfSeveralModelsOneAfterAnother) {
  const mlnn::test::TempFolder folder;
  folder.write("a.txt", kModel);
  folder.write("b.txt", kModel);
  const auto info = [&folder](const std::vector<std::string>& names) {
    std::vector<std::string> line = {"info"};
    line.insert(line.end(), names.begin(), names.end());
    return runTool(line, "", folder.path());
  };
  const std::string a = info({"a.txt"}).out;
  const std::string b = info({"b.txt"}).out;
  const ToolResult both = info({"a.txt", "b.txt"});
  EXPECT_EQ(both.status, 0);
  EXPECT_EQ(both.err, "");
  EXPECT_EQ(both.out, a + "\n" + b);
  const Json array = Json::parse(info({"--json", "a.txt", "b.txt"}).out);
  ASSERT_EQ(array.size(), 2u);
  EXPECT_EQ(array[0], Json::parse(info({"--json", "a.txt"}).out));
  EXPECT_EQ(array[1], Json::parse(info({"--json", "b.txt"}).out));
}

TEST(InfoCommandTest, goesOnAfterAModelThatDoesNotLoad) {
  const mlnn::test::TempFolder folder;
  folder.write("a.txt", kModel);
  const std::string missing = "ERROR: cannot read 'no': No such file or directory\n";
  const ToolResult text = runTool({"info", "no", "a.txt", "no"}, "", folder.path());
  EXPECT_EQ(text.status, 1);
  EXPECT_EQ(text.out, runTool({"info", "a.txt"}, "", folder.path()).out);
  EXPECT_EQ(text.err, missing + missing);
  const ToolResult json = runTool({"info", "--json", "no", "a.txt"}, "", folder.path());
  EXPECT_EQ(json.status, 1);
  EXPECT_EQ(Json::parse(json.out).size(), 1u);
  EXPECT_EQ(json.err, missing);
  EXPECT_EQ(runTool({"info", "-", "-"}, kModel).status, 2);
}

// It is printed piece by piece, and must look as if it were not.
TEST(InfoCommandTest, printsJsonAsTheLibraryWould) {
  const std::string bad =
      "MultiLayerNNModel_v2\nsoftmax 1\n# \xff\n# NVP \xff \xfe\nloss 1\n0.5\naccuracy 0\n"
      "num_layers 0\n";
  for (const std::string& model : {std::string(kModel), bad}) {
    const ToolResult result = runTool({"info", "--json", "-"}, model);
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(result.out, nlohmann::ordered_json::parse(result.out).dump(2, ' ', true) + "\n");
  }
  const mlnn::test::TempFolder folder;
  folder.write("model", kModel);
  for (const char* second : {"model", "absent"}) {
    const ToolResult result = runTool({"info", "--json", "model", second}, "", folder.path());
    EXPECT_EQ(result.out, nlohmann::ordered_json::parse(result.out).dump(2, ' ', true) + "\n");
  }
  EXPECT_EQ(runTool({"info", "--json", "absent", "absent"}).out, "[]\n");
}

TEST(InfoCommandTest, takesNoMoreMemoryForJsonThanForTheModel) {
  if (mlnn::test::toolHasSanitizers()) GTEST_SKIP() << "the sanitizer's memory comes on top";
  constexpr std::size_t kLayers = 100000;  // empty ones, of which a file has most
  MultiLayerNNModel model = mlnn::test::modelOf(std::vector<NNLayer>(kLayers));
  model.deltasNorm.allocIfNeeded();
  const std::string image = ByteImage::of(model).bytes();
  const mlnn::test::TempFolder folder;
  folder.write("model", image);
  std::string notes = "MultiLayerNNModel_v2\nsoftmax 1\n";
  for (std::size_t i = 0; i < kLayers; ++i) notes += "# note\n# NVP k" + std::to_string(i) + " v\n";
  folder.write("notes", notes + "num_layers 0\n");
  const auto peak = [&](const char* name) {
    const std::size_t before = runTool({"info", "--json", "-"}, kModel).peakBytes;
    const std::size_t after =
        mlnn::test::runToolAtMost(60, {"info", "--json", name}, folder.path()).peakBytes;
    return after - std::min(before, after);
  };
  constexpr std::size_t kMiB = std::size_t{1} << 20;
  EXPECT_LE(peak("model"), 16 * image.size() + 8 * kMiB);
  EXPECT_LE(peak("notes"), 32 * notes.size() + 8 * kMiB);
}

}  // namespace
