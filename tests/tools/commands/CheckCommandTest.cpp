#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "tests/support/ByteImage.h"
#include "tests/support/DigitsFolder.h"
#include "tests/support/SourceTree.h"
#include "tests/support/TestModels.h"
#include "tests/tools/support/ToolProcess.h"

namespace {

using Json = nlohmann::json;
using mlnn::test::ByteImage;
using mlnn::test::runShell;
using mlnn::test::runTool;
using mlnn::test::TempFolder;
using mlnn::test::ToolResult;

// A text with a suspicion: no normalisation.
constexpr char kModel[] =
    "MultiLayerNNModel_v2\nsoftmax 1\n# a note\n"
    "# nn_tune feat_desc mel_deltas:bands=2,left=0,right=0,deltas=0,line_kernels=0,"
    "line_kernel_width=0\n"
    "loss 1\n0.5\nnum_layers 2\n"
    "layer 1 size 2 3\nact_fn relu\n0.1\t0.2\t0.3\n0.4\t0.5\t0.6\n"
    "layer 2 size 2 3\nact_fn linear\n0.7\t0.8\t0.9\n1\t2\t3\n";

std::string with(std::string text, const std::string& part, const std::string& replacement) {
  return text.replace(text.find(part), part.size(), replacement);
}

// An image without a suspicion, but for what `change(model)` brings in.
template <typename Change>
std::string imageWith(Change change) {
  MultiLayerNNModel model =
      mlnn::test::modelOf({mlnn::test::plainLayer(3, 3, 1), mlnn::test::plainLayer(3, 3, 2),
                           mlnn::test::plainLayer(3, 2, 3)});
  model.layers.back()->actFn = ActFn::linear;
  model.featureDesc.numBands = 3;
  model.deltasNorm.allocIfNeeded();
  model.deltasNorm.normvals.setConstant(0.5f);
  change(model);
  return ByteImage::of(model).bytes();
}

std::string image() {
  return imageWith([](MultiLayerNNModel&) {});
}

TEST(CheckCommandTest, findsNothingInASoundModel) {
  const ToolResult result = runTool({"check", "--strict", "-"}, image());
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.out,
            "standard input loads: binary image, inputs 3 x 3 x 3 x 2 output classes\n"
            "nothing suspicious\n");
  EXPECT_EQ(result.err, "");
}

TEST(CheckCommandTest, listsSuspicions) {
  const std::string model = with(kModel, "act_fn linear\n", "act_fn linear \x1b\n");
  const ToolResult result = runTool({"check", "-"}, model);
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.out,
            "standard input loads: text, version 2, inputs 2 x 2 x 2 output classes\n"
            "2 suspicions:\n"
            "  line 13 holds '\\x1b', which is not read\n"
            "  there is no normalisation: frames go in as they are\n");
  EXPECT_EQ(result.err, "");
  EXPECT_EQ(runTool({"check", "--strict", "-"}, model).status, 1);
}

TEST(CheckCommandTest, saysWhereATextDoesNotFit) {
  const TempFolder folder;
  const std::string path = folder.write("model.txt", with(kModel, "0.5\t", "abc\t"));
  const ToolResult result = runTool({"check", path});
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.out,
            "'" + path +
                "' does not load\n"
                "line 11, column 5: layer 1, row 2, weight 1: expected a number, found 'abc'\n"
                "the reader says: ERROR: MultiLayerNNModel::deserializeAscii: expected layer 2 "
                "but found 1\n");
  EXPECT_EQ(result.err, "");
}

TEST(CheckCommandTest, saysWhatTheReasonMayBe) {
  const ToolResult result = runTool({"check", "-"}, with(kModel, "0.7\t0.8\t0.9", "0.7\t0.8"));
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.out,
            "standard input does not load\n"
            "line 16, column 1: layer 2, row 2, weight 2: expected a number, found the end of the "
            "file\n"
            "  line 14 holds 2 values, and a row of layer 2 has 3\n"
            "the reader says: ERROR: MultiLayerNNModel::deserializeAscii: unexpected end of input "
            "after reading all layers\n");
}

TEST(CheckCommandTest, saysWhereAnImageDoesNotFit) {
  const ToolResult result =
      runTool({"check", "-"}, ByteImage(image()).setInt32At(1004 + 12, 99).bytes());
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.out,
            "standard input does not load\n"
            "byte 1016: layer 1, activation: expected a code from 0 to 7, found 99\n"
            "the reader says: ERROR: MultiLayerNNModel::deserializeBinary: could not read layer "
            "index: 0\n");
}

TEST(CheckCommandTest, findsAPlaceWhereTheReaderSaysNothing) {
  const ToolResult result = runTool({"check", "-"}, "MLNN");
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.out,
            "standard input does not load\n"
            "byte 4: checksum: expected 4 bytes, found the end of the file after 4 bytes\n"
            "  the head of an image takes 1004 bytes\n");
}

TEST(CheckCommandTest, saysThatAFileCannotBeRead) {
  const ToolResult result = runTool({"check", "/no/such/model"});
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.out, "");
  EXPECT_EQ(result.err, "ERROR: cannot read '/no/such/model': No such file or directory\n");
}

TEST(CheckCommandTest, showsTheReadersInformationWhenAsked) {
  const ToolResult result = runTool({"check", "-v", "-"}, image());
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.out,
            "standard input loads: binary image, inputs 3 x 3 x 3 x 2 output classes\n"
            "nothing suspicious\n"
            "the reader says: info: deserializeBinary: feature desc: mel_deltas:bands=3,left=0,"
            "right=0,deltas=0,line_kernels=0,line_kernel_width=0\n");
}

TEST(CheckCommandTest, prefersAGivenActivation) {
  const std::string version1 =
      "MultiLayerNNModel\nnum_layers 2\nlayer 1 size 1 2\n1 2\n"
      "layer 2 size 2 2\n1 2\n3 4\n";
  EXPECT_NE(runTool({"check", "-"}, version1).out.find("does not record the activation"),
            std::string::npos);
  const ToolResult given = runTool({"check", "--act-fn", "tanh", "-"}, version1);
  EXPECT_EQ(given.out.find("activation"), std::string::npos);
  EXPECT_EQ(given.err, "info: activation of 1 hidden layer set to tanh (--act-fn)\n");
}

TEST(CheckCommandTest, printsTheSameAsJson) {
  const ToolResult refused = runTool({"check", "--json", "-"}, with(kModel, "0.5\t", "\xff\t"));
  EXPECT_EQ(refused.status, 1);
  EXPECT_EQ(refused.err, "");
  const Json json = Json::parse(refused.out);
  EXPECT_EQ(json["file"], "-");
  EXPECT_EQ(json["format"], "ascii");
  EXPECT_EQ(json["version"], 2);
  EXPECT_EQ(json["loads"], false);
  EXPECT_EQ(json["misfit"], Json::parse(R"({"offset": 207, "line": 11, "column": 5,
      "field": "layer 1, row 2, weight 1", "expected": "a number", "found": "'\\xff'"})"));
  EXPECT_EQ(json["messages"].back(),
            "ERROR: MultiLayerNNModel::deserializeAscii: expected layer 2 but found 1");

  const std::string odd =
      imageWith([](MultiLayerNNModel& model) { model.layers[1]->weights.row(2).setZero(); });
  const ToolResult loaded = runTool({"check", "--json", "-"}, odd);
  EXPECT_EQ(loaded.status, 0);
  EXPECT_EQ(Json::parse(loaded.out)["loads"], true);
  EXPECT_EQ(Json::parse(loaded.out)["suspicions"], Json::parse(R"([{"kind": "units_without_weights",
      "text": "layer 2: 1 of 3 units can never fire, all weights are 0: 3",
      "layer": 2, "array": "weights", "row": 3, "count": 1}])"));
}

// --- Digests ---

TEST(CheckCommandTest, printsDigestsAlone) {
  const ToolResult result = runTool({"check", "--digest", "-"}, kModel);
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.out.substr(0, 37), "mlnn digest 1\nformat      ascii\nfeatu");
  EXPECT_EQ(result.err,
            "standard input loads: text, version 2, inputs 2 x 2 x 2 output classes\n"
            "1 suspicion:\n"
            "  there is no normalisation: frames go in as they are\n");
  const ToolResult refused = runTool({"check", "--digest", "-"}, "no model");
  EXPECT_EQ(refused.status, 1);
  EXPECT_EQ(refused.out, "");
}

// Returns what is said of a model against the print of another.
ToolResult against(const std::string& before, const std::string& now, const std::string& option) {
  const TempFolder folder;
  const std::string print =
      folder.write("old", runTool({"check", option, "--digest", "-"}, before).out);
  ToolResult result = runTool({"check", "--against", "old", "-"}, now, folder.path());
  result.out.erase(0, result.out.find('\n') + 1);
  return result;
}

TEST(CheckCommandTest, tellsAModelThatIsTheSame) {
  for (const char* option : {"--strict", "--json"}) {
    const ToolResult result = against(image(), image(), option);
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.out, "nothing suspicious\nsame as 'old'\n");
  }
}

// What the checksum of an image does not cover.
TEST(CheckCommandTest, tellsLayersThatChangedPlacesAndTheHead) {
  const std::string swapped =
      imageWith([](MultiLayerNNModel& model) { std::swap(model.layers[0], model.layers[1]); });
  ASSERT_EQ(swapped.substr(4, 4), image().substr(4, 4));  // the checksum
  for (const char* option : {"--strict", "--json"}) {
    const ToolResult result = against(image(), swapped, option);
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.out,
              "nothing suspicious\n"
              "differs from 'old':\n"
              "  layers: changed\n"
              "  layer 1: is what layer 2 was\n"
              "  layer 2: is what layer 1 was\n");
  }
  // A bit of the first normval, and a byte of the description that nothing interprets.
  const ToolResult normval =
      against(image(), ByteImage(image()).flipBit(8 * 520).bytes(), "--json");
  EXPECT_EQ(normval.status, 1);
  EXPECT_EQ(normval.out, "nothing suspicious\ndiffers from 'old':\n  normvals: changed\n");
  const ToolResult reserved =
      against(image(), ByteImage(image()).setByteAt(25, 1).bytes(), "--json");
  EXPECT_EQ(reserved.status, 1);
  EXPECT_EQ(reserved.out, "nothing suspicious\ndiffers from 'old':\n  features: changed\n");
}

TEST(CheckCommandTest, comparesInJson) {
  const TempFolder folder;
  folder.write("old", runTool({"check", "--digest", "-"}, kModel).out);
  const std::string changed = with(kModel, "loss 1\n0.5", "loss 1\n0.25");
  const ToolResult result =
      runTool({"check", "--json", "--against", "old", "-"}, changed, folder.path());
  EXPECT_EQ(result.status, 1);
  const Json json = Json::parse(result.out);
  EXPECT_EQ(json["against"], Json::parse(R"({"file": "old", "same": false,
      "differences": [{"section": "loss", "text": "loss: changed"}], "not_compared": []})"));
  EXPECT_FALSE(json.contains("digest"));
}

TEST(CheckCommandTest, tellsTheSameModelInTheOtherFormat) {
  const TempFolder folder;
  const ToolResult result =
      runShell("M=" + mlnn::test::sourcePath("examples/digits/synth-bn.txt") +
                   "; mlnn check --digest $M > d 2>&- ; mlnn convert $M m.mlnn 2>&- ;"
                   "mlnn check --against d m.mlnn",
               folder.path());
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.out,
            "'m.mlnn' loads: binary image, inputs 600 bn 64 bn 48 bn 10 output classes\n"
            "nothing suspicious\n"
            "same as 'd'\n"
            "not compared, since only one of the two formats holds it: unused arrays, softmax, "
            "properties, notes, loss, accuracy\n");
}

TEST(CheckCommandTest, refusesWhatIsNoPrint) {
  const TempFolder folder;
  folder.write("old", kModel);
  const ToolResult result = runTool({"check", "--against", "old", "-"}, image(), folder.path());
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.out, "");
  EXPECT_EQ(result.err,
            "ERROR: 'old' is no print of digests: it does not begin with 'mlnn digest 1', and is "
            "no JSON from this command with --digest\n");
  const ToolResult twice = runTool({"check", "--against", "-", "-"}, image());
  EXPECT_EQ(twice.status, 2);
  EXPECT_EQ(twice.err, "ERROR: only one of the files can be the standard input\n");
}

// --- Real models ---

TEST(CheckCommandTest, hasNothingAgainstTheSample) {
  for (const char* name : {"synth.txt", "synth-bn.txt"}) {
    const ToolResult result = runTool(
        {"check", "--strict", mlnn::test::sourcePath(std::string("examples/digits/") + name)});
    EXPECT_EQ(result.status, 0) << result.out;
  }
}

TEST(CheckCommandTest, hasNothingAgainstTrainedModels) {
  const std::string folder = mlnn::test::digitsFolder();
  if (folder.empty()) GTEST_SKIP() << mlnn::test::kNoDigits;
  for (const char* name : {"digits-small.txt", "digits-bn.txt", "digits-bn-folded.txt"}) {
    EXPECT_EQ(runTool({"check", "--strict", folder + "/" + name}).status, 0) << name;
  }
  const ToolResult version1 = runTool({"check", folder + "/digits-small-v1.txt"});
  EXPECT_EQ(version1.status, 0);
  EXPECT_EQ(version1.out.substr(version1.out.find('\n') + 1),
            "1 suspicion:\n"
            "  the feature description states no number of bands; the inputs have room for frames "
            "of 120 values\n");
}

// --- Several models ---

TEST(CheckCommandTest, checksSeveralModelsOneAfterAnother) {
  const TempFolder folder;
  folder.write("sound", image());
  folder.write("odd", kModel);
  folder.write("broken", "MultiLayerNNModel_v2\nnonsense\n");
  const auto check = [&folder](const std::vector<std::string>& arguments) {
    std::vector<std::string> line = {"check"};
    line.insert(line.end(), arguments.begin(), arguments.end());
    return runTool(line, "", folder.path());
  };
  const std::string sound = check({"sound"}).out;
  const std::string odd = check({"odd"}).out;
  const std::string broken = check({"broken"}).out;
  EXPECT_EQ(check({"sound", "odd"}).out, sound + "\n" + odd);
  EXPECT_EQ(check({"sound", "odd"}).status, 0);
  EXPECT_EQ(check({"--strict", "odd", "sound"}).status, 1);
  const ToolResult all = check({"broken", "no", "sound"});
  EXPECT_EQ(all.status, 1);
  EXPECT_EQ(all.out, broken + "\n" + sound);
  EXPECT_EQ(all.err, "ERROR: cannot read 'no': No such file or directory\n");
  const Json array = Json::parse(check({"--json", "broken", "sound"}).out);
  ASSERT_EQ(array.size(), 2u);
  EXPECT_EQ(array[0], Json::parse(check({"--json", "broken"}).out));
  EXPECT_EQ(array[1], Json::parse(check({"--json", "sound"}).out));
}

TEST(CheckCommandTest, digestsAreOfOneModel) {
  const ToolResult digest = runTool({"check", "--digest", "a", "b"});
  EXPECT_EQ(digest.status, 2);
  EXPECT_EQ(digest.err, "ERROR: --digest is of one MODEL\n");
  const ToolResult against = runTool({"check", "--against", "d", "a", "b"});
  EXPECT_EQ(against.status, 2);
  EXPECT_EQ(against.err, "ERROR: --against compares one MODEL\n");
}

}  // namespace
