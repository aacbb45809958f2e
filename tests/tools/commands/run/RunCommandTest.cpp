#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <string>
#include <utility>
#include <vector>

#include "inference/Evaluation.h"
#include "inference/IntegerFwdPass.h"
#include "tests/support/ByteImage.h"
#include "tests/support/CaptureStderr.h"
#include "tests/support/SourceTree.h"
#include "tests/support/TestModels.h"
#include "tests/tools/support/CommandFixture.h"
#include "tools/files/Frames.h"
#include "tools/files/ModelLoading.h"

namespace {

namespace fs = std::filesystem;
using mlnn::test::contentOf;
using mlnn::test::runTool;
using mlnn::test::sourcePath;
using mlnn::test::ToolResult;
using Json = nlohmann::json;

// Two inputs, passed on as they are; without softmax. A frame is one value, with one frame of
// context to the left.
constexpr char kPair[] =
    "MultiLayerNNModel_v2\nsoftmax 0\n"
    "# nn_tune feat_desc mel_deltas:bands=1,left=1,right=0,deltas=0,line_kernels=0,"
    "line_kernel_width=0\n"
    "num_layers 1\nlayer 1 size 2 3\nact_fn linear\n0 1 0\n0 0 1\n";

// Two inputs straight into a softmax; a frame is an input vector.
constexpr char kSoftmax[] =
    "MultiLayerNNModel_v2\nsoftmax 1\n# NVP labels yes,n\x1bo\n"
    "num_layers 1\nlayer 1 size 2 3\nact_fn linear\n0 1 0\n0 0 1\n";

class RunCommandTest : public mlnn::test::CommandFixture {
 protected:
  RunCommandTest() : CommandFixture("run") {
    folder_.write("pair", kPair);
    folder_.write("softmax", kSoftmax);
    folder_.write("frames.txt", "1\n2\n3\n");
  }
};

TEST_F(RunCommandTest, stacksSingleFrames) {
  const ToolResult result = run({"pair", "frames.txt", "-o", "-"});
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.err, "");
  EXPECT_EQ(result.out, "1 1\n1 2\n2 3\n");
}

TEST_F(RunCommandTest, takesInputVectorsAsTheyAre) {
  EXPECT_EQ(run({"pair", "-", "-o", "-"}, "1 1\n1 2\n").out, "1 1\n1 2\n");
}

TEST_F(RunCommandTest, showsATableWithoutOut) {
  const ToolResult result = run({"pair", "frames.txt"});
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.out,
            "frame  class  output\n"
            "    0  0           1\n"
            "    1  1           2\n"
            "    2  1           3\n");
}

TEST_F(RunCommandTest, decidesForTheRecordingWhereThereIsASoftmax) {
  const ToolResult result = run({"softmax", "-"}, "0 1\n5 0\n");
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.out,
            "frame  class   posterior\n"
            "    0  n\\x1bo   0.731059\n"
            "    1  yes      0.993307\n"
            "recording: yes, sum of log posteriors -1.320\n");
}

TEST_F(RunCommandTest, knowsNoBestAmongValuesThatAreNoNumbers) {
  const ToolResult result = run({"softmax", "-"}, "0 1\nnan 0\n");
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.err, "Warning: standard input holds 1 value not finite\n");
  EXPECT_EQ(result.out,
            "frame  class   posterior\n"
            "    0  n\\x1bo   0.731059\n"
            "    1  ?             nan\n"
            "recording: ?, since 1 of 2 frames gave values that are not numbers\n");
}

TEST_F(RunCommandTest, showsTheSameAsJson) {
  const ToolResult result = run({"softmax", "-", "--json"}, "0 1\n5 0\n");
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.err, "");
  const Json json = Json::parse(result.out);
  EXPECT_EQ(json["model"], "softmax");
  ASSERT_EQ(json["recordings"].size(), 1u);
  const Json& recording = json["recordings"][0];
  EXPECT_EQ(recording["file"], "-");
  ASSERT_EQ(recording["frames"].size(), 2u);
  EXPECT_EQ(recording["frames"][0]["class"], 1);
  EXPECT_EQ(recording["frames"][0]["label"], "n\x1bo");
  EXPECT_NEAR(recording["frames"][0]["posterior"], 0.731059, 1e-6);
  EXPECT_EQ(recording["recording"]["class"], 0);
  EXPECT_EQ(recording["recording"]["label"], "yes");
  EXPECT_NEAR(recording["recording"]["sum_of_log_posteriors"], -1.320, 1e-3);
}

TEST_F(RunCommandTest, jsonHasNoRecordingClassWithoutSoftmax) {
  const Json json = Json::parse(run({"pair", "frames.txt", "--json"}).out);
  EXPECT_EQ(json["recordings"][0].count("recording"), 0u);
  EXPECT_EQ(json["recordings"][0]["frames"][2]["output"], 3.0);
}

TEST_F(RunCommandTest, jsonHasNullForWhatCannotBeTold) {
  const Json json = Json::parse(run({"softmax", "-", "--json"}, "0 1\nnan 0\n").out);
  const Json& recording = json["recordings"][0];
  EXPECT_EQ(recording["frames"][1],
            Json({{"class", nullptr}, {"label", nullptr}, {"posterior", nullptr}}));
  EXPECT_EQ(recording["recording"]["class"], nullptr);
  EXPECT_EQ(recording["recording"]["sum_of_log_posteriors"], nullptr);
}

TEST_F(RunCommandTest, jsonHoldsFailuresTooAndGoesWithOut) {
  folder_.write("bad.txt", "x\n");
  const ToolResult result = run({"pair", "bad.txt", "frames.txt", "--json", "-o", "results"});
  EXPECT_EQ(result.status, 1);
  const std::string message = "'bad.txt', line 1, column 1: expected a number, found 'x'";
  EXPECT_EQ(result.err, "ERROR: " + message + "\n");
  const Json json = Json::parse(result.out);
  EXPECT_EQ(json["recordings"][0], Json({{"file", "bad.txt"}, {"error", message}}));
  EXPECT_EQ(json["recordings"][1]["file"], "frames.txt");
  EXPECT_EQ(contentOf(folder_.path("results/frames.txt")), "1 1\n1 2\n2 3\n");
}

TEST_F(RunCommandTest, usesEachStandardStreamOnce) {
  const ToolResult in = run({"-", "-"}, kPair);
  EXPECT_EQ(in.status, 2);
  EXPECT_EQ(in.err, "ERROR: only one of the files can be the standard input\n");
  const ToolResult out = run({"pair", "frames.txt", "--json", "-o", "-"});
  EXPECT_EQ(out.status, 2);
  EXPECT_EQ(out.out, "");
  EXPECT_EQ(out.err, "ERROR: the JSON goes to standard output, so OUT cannot go there too\n");
}

TEST_F(RunCommandTest, namesSeveralRecordings) {
  folder_.write("more.txt", "7\n");
  EXPECT_EQ(run({"pair", "frames.txt", "more.txt"}).out,
            "frames.txt\n"
            "frame  class  output\n"
            "    0  0           1\n"
            "    1  1           2\n"
            "    2  1           3\n"
            "\n"
            "more.txt\n"
            "frame  class  output\n"
            "    0  0           7\n");
}

TEST_F(RunCommandTest, writesArraysByTheName) {
  EXPECT_EQ(run({"pair", "frames.txt", "-o", "out.npy"}).status, 0);
  EXPECT_EQ(contentOf(folder_.path("out.npy")).size(), 128u + 3 * 2 * sizeof(float));
  EXPECT_EQ(run({"pair", "out.npy", "-o", "out.csv"}).status, 0);
  EXPECT_EQ(contentOf(folder_.path("out.csv")), "1 1\n1 2\n2 3\n");
}

TEST_F(RunCommandTest, putsSeveralResultsIntoAFolder) {
  folder_.write("more.npy", contentOf(folder_.path("frames.txt")));
  EXPECT_EQ(run({"pair", "frames.txt", "more.npy", "-o", "results"}).status, 0);
  EXPECT_EQ(contentOf(folder_.path("results/frames.txt")), "1 1\n1 2\n2 3\n");
  EXPECT_EQ(contentOf(folder_.path("results/more.npy")).substr(1, 5), "NUMPY");
  EXPECT_EQ(run({"pair", "frames.txt", "-o", "made/"}).status, 0);
  EXPECT_EQ(contentOf(folder_.path("made/frames.txt")), "1 1\n1 2\n2 3\n");
  // A single one as well, when the folder is there.
  EXPECT_EQ(run({"pair", "results/frames.txt", "-o", folder_.path()}).status, 0);
  EXPECT_EQ(contentOf(folder_.path("frames.txt")), "1 1\n1 2\n2 3\n");
}

TEST_F(RunCommandTest, goesOnAfterARecordingThatIsRefused) {
  folder_.write("bad.txt", "1\nx\n");
  const ToolResult result = run({"pair", "bad.txt", "frames.txt", "-o", "results"});
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.err, "ERROR: 'bad.txt', line 2, column 1: expected a number, found 'x'\n");
  EXPECT_FALSE(fs::exists(folder_.path("results/bad.txt")));
  EXPECT_TRUE(fs::exists(folder_.path("results/frames.txt")));
}

TEST_F(RunCommandTest, refusesAnotherWidth) {
  const ToolResult result = run({"pair", "-"}, "1 2 3\n");
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.out, "");
  EXPECT_EQ(result.err,
            "ERROR: standard input has 3 values in a frame; expected 1 (single frames) or 2 "
            "(input vectors)\n");
}

TEST_F(RunCommandTest, refusesFramesWithoutContextWhenTheyAreSaidToBeStacked) {
  const ToolResult result = run({"pair", "--stacked", "frames.txt"});
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.err, "ERROR: 'frames.txt' has 1 value in a frame; expected 2 (input vectors)\n");
}

TEST_F(RunCommandTest, refusesAModelThatCannotBeRun) {
  const std::string broken =
      "MultiLayerNNModel_v2\nsoftmax 0\nnum_layers 2\nlayer 1 size 1 2\nact_fn linear\n0 1\n"
      "layer 2 size 1 3\nact_fn linear\n0 1 1\n";
  const ToolResult result = run({"-", "frames.txt"}, broken);
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.err,
            "ERROR: NNFwdPassFromFile::evaluate: layer 2 does not fit the model\n"
            "ERROR: the model cannot be run\n");
}

struct WrongUsage {
  std::vector<std::string> arguments;
  std::string message;
};

TEST_F(RunCommandTest, refusesResultsThatWouldBeLost) {
  fs::create_directory(folder_.path("other"));
  folder_.write("other/frames.txt", "1\n");
  const std::string same = fs::canonical(folder_.path("frames.txt")).generic_string();
  for (const WrongUsage& wrong : {
           WrongUsage{{"pair", "frames.txt", "-o", "frames.txt"},
                      "the result would replace its own frames, 'frames.txt'"},
           WrongUsage{{"pair", same, "-o", "frames.txt"},
                      "the result would replace its own frames, '" + same + "'"},
           WrongUsage{{"pair", "frames.txt", "-o", "."},
                      "the result would replace its own frames, 'frames.txt'"},
           WrongUsage{{"pair", "frames.txt", "other/frames.txt", "-o", "results"},
                      "two results would be called 'frames.txt' in the folder 'results'"},
           WrongUsage{{"pair", "frames.txt", "-", "-o", "results"},
                      "the result of standard input has no name in the folder 'results'"},
       }) {
    const ToolResult result = run(wrong.arguments);
    EXPECT_EQ(result.status, 2);
    EXPECT_EQ(result.err, "ERROR: " + wrong.message + "\n");
  }
  EXPECT_EQ(contentOf(folder_.path("frames.txt")), "1\n2\n3\n");
  EXPECT_FALSE(fs::exists(folder_.path("results")));
}

TEST_F(RunCommandTest, refusesResultsThatWouldReplaceAnInput) {
  fs::create_symlink("pair", folder_.path("link"));
  fs::create_directory(folder_.path("into"));
  folder_.write("into/softmax", kSoftmax);
  ASSERT_EQ(run({"pair", "frames.txt", "--trace", "tr"}).status, 0);
  fs::create_directories(folder_.path("several/outputs"));
  fs::create_symlink("../../frames.txt", folder_.path("several/outputs/layer-1.npy"));
  const std::string inputs = contentOf(folder_.path("tr/inputs.npy"));
  const std::string before = "ERROR: the result would replace its own ";
  expectRefused({"pair", "frames.txt", "-o", "pair"}, 2, before + "model, 'pair'\n");
  expectRefused({"pair", "frames.txt", "-o", "./link"}, 2, before + "model, 'pair'\n");
  expectRefused({"link", "frames.txt", "-o", "pair"}, 2, before + "model, 'link'\n");
  expectRefused({"into/softmax", "frames.txt", "softmax", "-o", "into"}, 2,
                before + "model, 'into/softmax'\n");
  expectRefused({"pair", "tr/inputs.npy", "--trace", "tr"}, 2,
                before + "frames, 'tr/inputs.npy'\n");
  expectRefused({"tr/outputs.npy", "frames.txt", "--trace", "tr"}, 2,
                before + "model, 'tr/outputs.npy'\n");
  expectRefused({"pair", "frames.txt", "tr/outputs.npy", "--trace", "several"}, 2,
                before + "frames, 'frames.txt'\n");
  EXPECT_EQ(contentOf(folder_.path("pair")), kPair);
  EXPECT_EQ(contentOf(folder_.path("into/softmax")), kSoftmax);
  EXPECT_EQ(contentOf(folder_.path("frames.txt")), "1\n2\n3\n");
  EXPECT_EQ(contentOf(folder_.path("tr/inputs.npy")), inputs);
}

// "..npy" without its ending is the folder itself, "...npy" the one around it.
TEST_F(RunCommandTest, refusesTracesOutsideTheirFolder) {
  for (const std::string name : {"..txt", "...txt"}) {
    folder_.write(name, "1\n");
    expectRefused({"pair", "frames.txt", name, "--trace", "tr"}, 2,
                  "ERROR: the trace of '" + name + "' has no name in the folder 'tr'\n");
  }
  for (const std::string name : {"no/.", "no/..", "no/"}) {
    expectRefused({"pair", "frames.txt", name, "--out", "results"}, 2,
                  "ERROR: the result of '" + name + "' has no name in the folder 'results'\n");
  }
}

TEST_F(RunCommandTest, goesThroughFoldersAndLists) {
  for (const char* name : {"a", "b"}) {
    fs::create_directory(folder_.path(name));
    folder_.write(std::string(name) + "/same.txt", std::string(name) == "a" ? "1\n" : "2\n");
  }
  const ToolResult result = run({"pair", "a", "-0", "--files-from", "-", "-o", "out"},
                                std::string("frames.txt\0b/\0", 14));
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.err, "");
  EXPECT_EQ(contentOf(folder_.path("out/frames.txt")), "1 1\n1 2\n2 3\n");
  EXPECT_EQ(contentOf(folder_.path("out/a/same.txt")), "1 1\n");
  EXPECT_EQ(contentOf(folder_.path("out/b/same.txt")), "2 2\n");
  ASSERT_EQ(run({"pair", "a", "frames.txt", "--trace", "tr"}).status, 0);
  EXPECT_TRUE(fs::exists(folder_.path("tr/a/same/outputs.npy")));
  EXPECT_TRUE(fs::exists(folder_.path("tr/frames/outputs.npy")));
  expectRefused({"pair", "a", "frames.txt", "./a/", "-o", "out"}, 2,
                "ERROR: two results would be called 'a/same.txt' in the folder 'out'\n");
  expectRefused({"pair"}, 2, "ERROR: FRAMES is required, or --files-from with their names\n");
  folder_.write("list", "-\n");
  expectRefused({"-", "--files-from", "list"}, 2,
                "ERROR: only one of the files can be the standard input\n");
  expectRefused({"pair", "-", "--files-from", "-"}, 2,
                "ERROR: only one of the files can be the standard input\n");
}

TEST_F(RunCommandTest, putsTheOnlyFileOfAFolderIntoAFolder) {
  fs::create_directory(folder_.path("a"));
  folder_.write("a/one.txt", "1\n");
  ASSERT_EQ(run({"pair", "a", "-o", "out"}).status, 0);
  EXPECT_EQ(contentOf(folder_.path("out/a/one.txt")), "1 1\n");
}

// A line for each, in their order, whether it worked or not.
TEST_F(RunCommandTest, printsALineOfJsonForEachRecording) {
  folder_.write("wide.txt", "1 2 3 4\n");
  const ToolResult result = run({"softmax", "-", "wide.txt", "--json-lines"}, "0 0\n");
  EXPECT_EQ(result.status, 1);
  const std::size_t end = result.out.find('\n');
  EXPECT_EQ(result.out.substr(0, end + 1),
            "{\"file\":\"-\",\"frames\":[{\"class\":0,\"label\":\"yes\",\"posterior\":0.5}],"
            "\"recording\":{\"class\":0,\"label\":\"yes\","
            "\"sum_of_log_posteriors\":-0.6931471805599453}}\n");
  const Json second = Json::parse(result.out.substr(end + 1));
  EXPECT_EQ(second["file"], "wide.txt");
  EXPECT_EQ(result.err, "ERROR: " + second["error"].get<std::string>() + "\n");
  expectRefused({"pair", "frames.txt", "--json-lines", "-o", "-"}, 2,
                "ERROR: the JSON goes to standard output, so OUT cannot go there too\n");
}

// A result that fails at the very end, when it should take its name.
TEST_F(RunCommandTest, tellsResultsThatFailAtTheEnd) {
  fs::create_directories(folder_.path("out/b.txt"));
  for (const char* name : {"a.txt", "b.txt", "c.txt"}) folder_.write(name, "1\n");
  const std::string message = "cannot write 'out/b.txt': Is a directory";
  for (const std::string form : {"--json", "--json-lines"}) {
    const ToolResult result = run({"pair", "a.txt", "b.txt", "c.txt", "-o", "out", form});
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.err, "ERROR: " + message + "\n");
    EXPECT_NE(result.out.find("\"error\":"), std::string::npos);
    EXPECT_EQ(contentOf(folder_.path("out/a.txt")), "1 1\n");
    EXPECT_EQ(contentOf(folder_.path("out/c.txt")), "1 1\n");
  }
}

// Whoever writes into it finds a reader until the end: it is opened once.
TEST_F(RunCommandTest, readsTheModelFromANamedPipe) {
  const ToolResult result = mlnn::test::runShell(
      "mkfifo pipe || exit 9\n"
      "for i in 1 2 3 4 5 6 7 8 9 10 11 12 13 14 15 16 17 18 19 20; do\n"
      "  cat pair > pipe & timeout 20 mlnn run pipe frames.txt -o out || exit 8\n"
      "  wait $! || exit 7\n"
      "done",
      folder_.path());
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.err, "");
  EXPECT_EQ(contentOf(folder_.path("out")), "1 1\n1 2\n2 3\n");
}

TEST_F(RunCommandTest, takesAsFewBitsAsAskedFor) {
  ASSERT_EQ(runTool({"new", "300,400,3", "large"}, "", folder_.path()).status, 0);
  ASSERT_EQ(runTool({"reduce", "large", "reduced", "--bits", "5"}, "", folder_.path()).status, 0);
  std::string frame = "0.5";
  for (int i = 1; i < 300; ++i) frame += i % 3 == 0 ? " 1" : " -0.25";
  const ToolResult coded = run({"large", "-", "--bits", "5", "-o", "-"}, frame + "\n");
  EXPECT_EQ(coded.status, 0);
  EXPECT_EQ(coded.err,
            "Warning: 22 % of the weights are smaller than a step of 5 bits and become zero or the "
            "same; see what that loses with 'mlnn reduce --sweep', or use 'mlnn quantize'\n");
  EXPECT_EQ(coded.out, run({"reduced", "-", "-o", "-"}, frame + "\n").out);
  EXPECT_NE(coded.out, run({"large", "-", "-o", "-"}, frame + "\n").out);
}

TEST_F(RunCommandTest, refusesBitsThatNoCodeHas) {
  for (const std::string bits : {"0", "9", "-1", "x"}) {
    EXPECT_EQ(run({"pair", "frames.txt", "--bits", bits}).status, 2) << bits;
  }
  expectRefused({"pair", "frames.txt", "--bits", "8", "--trace", "traced"}, 2,
                "ERROR: a trace shows the model itself, so --trace does not go with --bits\n");
}

// --- Integers ---

Eigen::MatrixXf integerOutputs(const MultiLayerNNModel& model, const Eigen::MatrixXf& frames,
                               mlnn::WideInputs wideInputs) {
  std::string whyNot;
  const auto inputs = mlnn::RecordingInputs::forFrames(model, frames.rows(), false, "it", whyNot);
  EXPECT_TRUE(inputs) << whyNot;
  const auto pass = mlnn::IntegerFwdPass::create(model, wideInputs);
  return *mlnn::evaluateFrames(*pass, frames, *inputs);
}

// As the library computes them, from a text and from an image where it lies.
TEST_F(RunCommandTest, computesQuantisedLayersInIntegers) {
  const std::string digits = sourcePath("examples/digits/synth.txt");
  const std::string frames = sourcePath("examples/digits/frames/3_en-us_f4.npy");
  ASSERT_EQ(runTool({"quantize", digits, folder_.path("text")}).status, 0);
  ASSERT_EQ(runTool({"convert", "text", "image.mlnn"}, "", folder_.path()).status, 0);
  const std::vector<std::pair<std::vector<std::string>, mlnn::WideInputs>> ways = {
      {{}, mlnn::WideInputs::kNone},
      {{"--words", "first"}, mlnn::WideInputs::kFirst},
      {{"--words", "all"}, mlnn::WideInputs::kAll}};
  const mlnn::ModelFile text = mlnn::loadModel(folder_.path("text"));
  for (const auto& [options, wideInputs] : ways) {
    const Eigen::MatrixXf expected =
        integerOutputs(text.model, mlnn::readRecording(frames), wideInputs);
    mlnn::writeFrames(folder_.path("expected"), expected);
    for (const std::string name : {"text", "image.mlnn"}) {
      std::vector<std::string> line = {name, frames, "--integers", "-o", "-"};
      line.insert(line.end(), options.begin(), options.end());
      const ToolResult result = run(line);
      EXPECT_EQ(result.status, 0);
      EXPECT_EQ(result.err, "");
      EXPECT_EQ(result.out, contentOf(folder_.path("expected"))) << name;
    }
  }
}

TEST_F(RunCommandTest, saysWhereNothingCanBeComputedInIntegers) {
  folder_.write("floats",
                "MultiLayerNNModel_v2\nsoftmax 0\nnum_layers 1\nlayer 1 size 2 3\n"
                "act_fn linear\n0 1 0.3\n0 0.7 1\n");
  const ToolResult result = run({"floats", "-", "--integers", "-o", "-"}, "1 2\n");
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.err,
            "Warning: no layer is quantised by rows, so all are computed in floats; see 'mlnn "
            "quantize'\n");
  EXPECT_EQ(result.out, run({"floats", "-", "-o", "-"}, "1 2\n").out);
}

TEST_F(RunCommandTest, refusesIntegersWithWhatTheyDoNotGoWith) {
  expectRefused({"pair", "frames.txt", "--integers", "--trace", "traced"}, 2,
                "ERROR: a trace shows floats, so --trace does not go with --integers\n");
  EXPECT_EQ(run({"pair", "frames.txt", "--integers", "--bits", "8"}).status, 2);
  EXPECT_EQ(run({"pair", "frames.txt", "--words", "all"}).status, 2);
  EXPECT_EQ(run({"pair", "frames.txt", "--integers", "--words", "some"}).status, 2);
}

TEST_F(RunCommandTest, saysWhyAFolderCannotBeMade) {
  folder_.write("more.txt", "7\n");
  const ToolResult result = run({"pair", "frames.txt", "more.txt", "-o", "softmax"});
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.err, "ERROR: cannot make the folder 'softmax': File exists\n");
}

TEST_F(RunCommandTest, aModelThatTellsNoActivationIsWarnedOf) {
  const std::string old =
      "MultiLayerNNModel\nnum_layers 2\nlayer 1 size 1 2\n0 1\nlayer 2 size 1 2\n0 1\n";
  const ToolResult linear = run({"-", "frames.txt", "-o", "out"}, old);
  EXPECT_EQ(linear.status, 0);
  EXPECT_EQ(linear.err,
            "Warning: standard input does not record the activation of 1 hidden layer and has no "
            "property hidden_act_fn; they are taken as linear (see --act-fn)\n");
  const ToolResult relu = run({"-", "frames.txt", "-o", "out", "--act-fn", "relu"}, old);
  EXPECT_EQ(relu.status, 0);
  EXPECT_EQ(relu.err, "info: activation of 1 hidden layer set to relu (--act-fn)\n");
}

// --- Images ---

// A file is run from where it lies; the standard input, and where a trace is asked for, the model
// that was loaded.
TEST_F(RunCommandTest, imagesGiveTheSameBitsHoweverTheyAreRun) {
  const std::string digits = sourcePath("examples/digits/synth.txt");
  const std::string frames = sourcePath("examples/digits/frames/3_en-us_f4.npy");
  ASSERT_EQ(runTool({"convert", digits, folder_.path("whole.mlnn")}).status, 0);
  ASSERT_EQ(runTool({"reduce", digits, folder_.path("small.mlnn"), "--bits", "8"}).status, 0);
  for (const std::string name : {"whole.mlnn", "small.mlnn"}) {
    const std::string image = contentOf(folder_.path(name));
    const ToolResult inPlace = run({name, frames, "-o", "in-place.npy"});
    EXPECT_EQ(inPlace.status, 0);
    EXPECT_EQ(inPlace.err, "");
    EXPECT_EQ(run({"-", frames, "-o", "loaded.npy"}, image).status, 0);
    EXPECT_EQ(run({name, frames, "-o", "traced.npy", "--trace", name + "-trace"}).status, 0);
    EXPECT_EQ(contentOf(folder_.path("in-place.npy")), contentOf(folder_.path("loaded.npy")));
    EXPECT_EQ(contentOf(folder_.path("in-place.npy")), contentOf(folder_.path("traced.npy")));
    EXPECT_EQ(run({name, frames}).out, run({"-", frames}, image).out);
    EXPECT_EQ(run({"-v", name, frames}).err, run({"-v", "-", frames}, image).err);
  }
}

// An image does not say so itself. However it is run: in place, loaded, as codes.
TEST_F(RunCommandTest, anImageCanBeSaidToHaveNoSoftmax) {
  ASSERT_EQ(runTool({"convert", "pair", "pair.mlnn"}, "", folder_.path()).status, 0);
  const std::string asText = run({"pair", "frames.txt", "-o", "-"}).out;
  EXPECT_EQ(asText, "1 1\n1 2\n2 3\n");
  const std::vector<std::vector<std::string>> ways = {
      {}, {"--act-fn", "relu"}, {"--trace", "traced"}, {"--bits", "8"}};
  for (const std::vector<std::string>& way : ways) {
    std::vector<std::string> line = {"pair.mlnn", "frames.txt", "-o", "-"};
    line.insert(line.end(), way.begin(), way.end());
    EXPECT_NE(run(line).out, asText);
    line.insert(line.end(), {"--softmax", "off"});
    EXPECT_EQ(run(line).out, asText);
  }
  EXPECT_EQ(run({"pair.mlnn", "frames.txt", "--softmax", "off"}).out,
            run({"pair", "frames.txt"}).out);
  EXPECT_EQ(run({"pair.mlnn", "frames.txt", "--softmax", "off", "--integers"}).out,
            run({"pair", "frames.txt", "--integers"}).out);
}

TEST_F(RunCommandTest, softmaxCountsForTextsToo) {
  EXPECT_EQ(run({"softmax", "-", "-o", "-", "--softmax", "off"}, "0 1\n").out, "0 1\n");
  EXPECT_EQ(run({"pair", "-", "-o", "-", "--softmax", "on"}, "2 2\n").out, "0.5 0.5\n");
  EXPECT_EQ(run({"pair", "-", "--softmax", "maybe"}, "2 2\n").status, 2);
}

TEST_F(RunCommandTest, imagesAreRefusedAsTheReaderRefusesThem) {
  ASSERT_EQ(runTool({"convert", "pair", "pair.mlnn"}, "", folder_.path()).status, 0);
  const std::string image = contentOf(folder_.path("pair.mlnn"));
  const std::string damaged[] = {image.substr(0, 600),
                                 image.substr(0, image.size() - 1),
                                 image + "x",
                                 "MLNN",
                                 "MLNN123",
                                 std::string(image).replace(1060, 1, "\x7f")};
  for (const std::string& bytes : damaged) {
    folder_.write("damaged.mlnn", bytes);
    const ToolResult inPlace = run({"damaged.mlnn", "frames.txt"});
    ToolResult loaded = run({"-", "frames.txt"}, bytes);
    const std::size_t name = loaded.err.find("standard input");
    ASSERT_NE(name, std::string::npos);
    loaded.err.replace(name, std::string("standard input").size(), "'damaged.mlnn'");
    EXPECT_EQ(inPlace.status, 1);
    EXPECT_EQ(inPlace.err, loaded.err);
    EXPECT_EQ(inPlace.out, "");
  }
}

TEST_F(RunCommandTest, imagesWithoutOutputsAreRefused) {
  mlnn::test::CaptureStderr quiet;
  MultiLayerNNModel model = mlnn::test::modelOf({NNLayer(2, 0, false), NNLayer(0, 1, false)});
  model.deltasNorm.allocIfNeeded();
  folder_.write("narrow.mlnn", mlnn::test::ByteImage::of(model).bytes());
  const ToolResult result = run({"narrow.mlnn", "frames.txt"});
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.err, "ERROR: the model has no outputs\n");
}

// Recordings of different lengths, some of which are refused or warned of.
void writeManyRecordings(const mlnn::test::TempFolder& folder) {
  fs::create_directory(folder.path("many"));
  for (int i = 0; i < 50; ++i) {
    std::string text;
    for (int f = 0; f <= i % 7; ++f) text += std::to_string(i) + " " + std::to_string(f) + "\n";
    if (i % 11 == 3) text = "1 x\n";
    if (i % 13 == 4) text = "1 2 3\n";
    if (i % 17 == 5) text += "nan 1\n";
    folder.write("many/" + std::to_string(100 + i) + ".txt", text);
  }
}

TEST_F(RunCommandTest, givesTheSameWithAnyNumberOfJobs) {
  writeManyRecordings(folder_);
  for (const std::vector<std::string>& form : std::vector<std::vector<std::string>>{
           {}, {"--json"}, {"--json-lines"}, {"--bits", "8"}, {"--integers"}, {"-o", "-"}}) {
    std::vector<std::string> arguments = {"softmax", "many", "frames.txt"};
    if (form == std::vector<std::string>{"-o", "-"}) arguments = {"softmax", "many/101.txt"};
    arguments.insert(arguments.end(), form.begin(), form.end());
    arguments.insert(arguments.end(), {"--jobs", "1"});
    const ToolResult alone = run(arguments);
    EXPECT_FALSE(alone.out.empty());
    for (const char* const jobs : {"2", "3", "8"}) {
      arguments.back() = jobs;
      const ToolResult together = run(arguments);
      EXPECT_EQ(together.status, alone.status);
      EXPECT_EQ(together.out, alone.out);
      EXPECT_EQ(together.err, alone.err);
    }
  }
}

TEST_F(RunCommandTest, imagesGiveTheSameWithAnyNumberOfJobs) {
  writeManyRecordings(folder_);
  MultiLayerNNModel model = mlnn::test::modelOf({mlnn::test::plainLayer(2, 5)});
  model.deltasNorm.allocIfNeeded();
  folder_.write("image", mlnn::test::ByteImage::of(model).bytes());
  const ToolResult alone = run({"image", "many", "--stacked", "--jobs", "1"});
  EXPECT_FALSE(alone.out.empty());
  const ToolResult together = run({"image", "many", "--stacked", "--jobs", "4"});
  EXPECT_EQ(together.out, alone.out);
  EXPECT_EQ(together.err, alone.err);
}

TEST_F(RunCommandTest, refusesToRunWithoutAnyJob) {
  expectRefused({"pair", "frames.txt", "--jobs", "0"}, 2,
                "ERROR: --jobs: Value 0 not in range 1 to 256\n"
                "Run with --help for more information.\n");
}

TEST_F(RunCommandTest, resumesBehindTheResultsThatAreWhole) {
  const auto later = [this](const std::string& name, int seconds) {
    const fs::path file = folder_.path(name);
    fs::last_write_time(file,
                        fs::last_write_time(folder_.path("pair")) + std::chrono::seconds(seconds));
  };
  for (const char* const name : {"a", "b", "c", "d", "e"}) {
    folder_.write(name, "1\n2\n");
    later(name, 10);
  }
  fs::create_directory(folder_.path("out"));
  for (const char* const name : {"out/a", "out/b", "out/c"}) folder_.write(name, "as it was\n");
  later("out/a", 20);                           // done
  later("out/b", 5);                            // before the recording was changed
  later("out/c", 10);                           // perhaps before
  fs::create_directory(folder_.path("out/d"));  // no result
  const std::vector<std::string> arguments = {"pair", "a", "b", "c", "e", "-o", "out", "--resume"};
  const ToolResult result = run(arguments);
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.out + result.err, "");
  EXPECT_EQ(contentOf(folder_.path("out/a")), "as it was\n");
  for (const char* const name : {"out/b", "out/c", "out/e"}) {
    EXPECT_EQ(contentOf(folder_.path(name)), "1 1\n1 2\n");
    later(name, 20);
  }
  EXPECT_EQ(run({"pair", "a", "b", "c", "d", "e", "-o", "out", "--resume"}).status, 1);
  later("pair", 30);  // now no result is of this model
  EXPECT_EQ(run(arguments).status, 0);
  EXPECT_EQ(contentOf(folder_.path("out/a")), "1 1\n1 2\n");
}

TEST_F(RunCommandTest, resumesWithNothingLeftToDo) {
  ASSERT_EQ(run({"pair", "frames.txt", "-o", "out"}).status, 0);
  fs::last_write_time(folder_.path("out"),
                      fs::last_write_time(folder_.path("out")) + std::chrono::seconds(9));
  const ToolResult result = run({"pair", "frames.txt", "-o", "out", "--resume", "--json-lines"});
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.out, "");
}

TEST_F(RunCommandTest, resumesOnlyWhereThereAreResults) {
  expectRefused(
      {"pair", "frames.txt", "--resume"}, 2,
      "ERROR: --resume looks for results in OUT, so it goes with a file or folder there\n");
  expectRefused(
      {"pair", "frames.txt", "--resume", "-o", "out", "--trace", "t"}, 2,
      "ERROR: a trace has no sign that it is whole, so --trace does not go with --resume\n");
}

// A file too long to be read as a whole, of few frames.
std::string longText(const std::string& frames) {
  return "#" + std::string(std::size_t{1} << 20, 'x') + "\n" + frames;
}

std::string longArray(const Eigen::MatrixXf& frames) {
  std::string header = "{'descr': '<f4', 'fortran_order': False, 'shape': (" +
                       std::to_string(frames.cols()) + ", " + std::to_string(frames.rows()) + ")}";
  header.resize(std::size_t{1} << 20, ' ');
  return std::string("\x93NUMPY\2\0\0\0\x10\0", 12) + header +
         std::string(reinterpret_cast<const char*>(frames.data()),
                     static_cast<std::size_t>(frames.size()) * sizeof(float));
}

TEST_F(RunCommandTest, givesTheSameOfLongRecordingsWhichItReadsInPieces) {
  const Eigen::MatrixXf frames = mlnn::test::someValues(2, 700, 1);
  mlnn::writeFrames(folder_.path("short.txt"), frames);
  mlnn::writeFrames(folder_.path("short.npy"), frames);
  folder_.write("long.txt", longText(contentOf(folder_.path("short.txt"))));
  folder_.write("long.npy", longArray(frames));
  for (const std::string model : {"pair", "softmax"}) {
    for (const std::string ending : {".txt", ".npy"}) {
      const std::string name = "long" + ending;
      ASSERT_EQ(run({model, "short" + ending, "-o", "short-out.npy"}).status, 0);
      ASSERT_EQ(run({model, name, "-o", "long-out.npy"}).status, 0);
      EXPECT_EQ(contentOf(folder_.path("long-out.npy")), contentOf(folder_.path("short-out.npy")));
      EXPECT_EQ(run({model, name}).out, run({model, "short" + ending}).out);
      EXPECT_EQ(run({model, name, "-o", "-"}).out, run({model, "short" + ending, "-o", "-"}).out);
      EXPECT_EQ(run({model, name, "--jobs", "1"}).out, run({model, name, "--jobs", "3"}).out);
      for (const std::string form : {"--json", "--json-lines"}) {
        std::string expected = run({model, "short" + ending, form}).out;
        expected.replace(expected.find("short"), 5, "long");
        EXPECT_EQ(run({model, name, form}).out, expected);
      }
    }
  }
}

TEST_F(RunCommandTest, warnsOfLongRecordings) {
  folder_.write("long.txt", longText("1 2\nnan 3\n"));
  const ToolResult result = run({"pair", "long.txt", "--json-lines"});
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.err, "Warning: 'long.txt' holds 1 value not finite\n");
}

// A recording that turns out to be broken leaves nothing, and the others are done.
TEST_F(RunCommandTest, leavesNothingOfLongRecordingsThatAreBroken) {
  fs::create_directory(folder_.path("in"));
  folder_.write("in/a.txt", longText("1\n2\n"));
  folder_.write("in/b.txt", longText("1\n2\nx\n"));
  folder_.write("in/c.txt", longText("1\n2 3\n"));
  folder_.write("in/d.txt", "5\n");
  const ToolResult result = run({"pair", "in", "-o", "out", "--json-lines"});
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.err,
            "ERROR: 'in/b.txt', line 4, column 1: expected a number, found 'x'\n"
            "ERROR: 'in/c.txt', line 3: expected 1 value as in the lines before, found 2\n");
  EXPECT_EQ(contentOf(folder_.path("out/in/a.txt")), "1 1\n1 2\n");
  EXPECT_EQ(contentOf(folder_.path("out/in/d.txt")), "5 5\n");
  EXPECT_FALSE(fs::exists(folder_.path("out/in/b.txt")));
  EXPECT_FALSE(fs::exists(folder_.path("out/in/c.txt")));
  EXPECT_EQ(std::count(result.out.begin(), result.out.end(), '\n'), 4);
}

// Whoever sends a frame is answered before the next one; else nobody would come to an end here.
TEST_F(RunCommandTest, tellsOfFramesAsTheyArrive) {
  const std::string talk =
      "mkfifo in out; (%) <in >out & exec 3>in 4<out; "
      "heading() { if [ \"$1\" = table ]; then IFS= read -r line <&4; echo \"$line\"; fi; }; "
      "echo 1 >&3; heading $0; IFS= read -r line <&4; echo \"$line\"; "
      "echo 2 >&3; IFS= read -r line <&4; echo \"$line\"; exec 3>&-; cat <&4; rm in out";
  const auto answers = [&](const std::string& command, const std::string& form) {
    std::string line = talk;
    line.replace(line.find('%'), 1, "exec timeout 60 mlnn run pair - " + command);
    line.replace(line.find("$0"), 2, form);
    return mlnn::test::runShell(line, folder_.path()).out;
  };
  EXPECT_EQ(answers("-o -", "values"), "1 1\n1 2\n");
  EXPECT_EQ(answers("", "table"),
            "frame  class        output\n"
            "    0  0                 1\n"
            "    1  1                 2\n");
}

TEST_F(RunCommandTest, endsWhereNobodyWantsToKnowOfAStreamWithoutAnEnd) {
  const ToolResult result = mlnn::test::runShell(
      "(yes '1 0' 2>/dev/null | (ulimit -t 60; mlnn run softmax - 2>err; echo $? >status)) | "
      "head -n 2; cat status err",
      folder_.path());
  EXPECT_EQ(result.out,
            "frame  class   posterior\n"
            "    0  yes      0.731059\n"
            "1\nERROR: cannot write to standard output: Broken pipe\n");
}

TEST_F(RunCommandTest, tellsOfTheFramesOfAPipeBeforeABrokenOne) {
  const ToolResult result =
      mlnn::test::runShell("printf '0 1\\n5 0\\nx\\n' | mlnn run softmax -", folder_.path());
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.out,
            "frame  class   posterior\n"
            "    0  n\\x1bo   0.731059\n"
            "    1  yes      0.993307\n");
  EXPECT_EQ(result.err, "ERROR: standard input, line 3, column 1: expected a number, found 'x'\n");
}

}  // namespace
