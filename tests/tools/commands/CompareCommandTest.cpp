#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "tests/support/DigitsFolder.h"
#include "tests/tools/support/ToolProcess.h"

namespace {

namespace fs = std::filesystem;
using mlnn::test::contentOf;
using mlnn::test::digitsFolder;
using mlnn::test::runTool;
using mlnn::test::TempFolder;
using mlnn::test::ToolResult;
using Json = nlohmann::json;
using Names = std::vector<std::string>;

// A frame is one value, with one frame of context to the left, which weights 1 and 2 sum up.
constexpr char kModel[] =
    "MultiLayerNNModel_v2\nsoftmax 0\n"
    "# nn_tune feat_desc mel_deltas:bands=1,left=1,right=0,deltas=0,line_kernels=0,"
    "line_kernel_width=0\n"
    "num_layers 2\nlayer 1 size 1 3\nact_fn relu\n-5 1 2\nlayer 2 size 2 2\nact_fn linear\n0 "
    "1\n0.5 1\n";

// The same with another bias in layer 2.
constexpr char kOther[] =
    "MultiLayerNNModel_v2\nsoftmax 0\n"
    "# nn_tune feat_desc mel_deltas:bands=1,left=1,right=0,deltas=0,line_kernels=0,"
    "line_kernel_width=0\n"
    "num_layers 2\nlayer 1 size 1 3\nact_fn relu\n-5 1 2\nlayer 2 size 2 2\nact_fn linear\n0 "
    "1\n0.75 1\n";

class TraceTest : public ::testing::Test {
 protected:
  TraceTest() {
    folder_.write("model", kModel);
    folder_.write("other", kOther);
    folder_.write("frames.txt", "1\n2\n3\n");
    folder_.write("more.txt", "7\n");
  }

  ToolResult tool(const std::vector<std::string>& arguments, const std::string& input = "") const {
    return runTool(arguments, input, folder_.path());
  }

  ToolResult trace(const std::string& model, const std::string& into) const {
    return tool({"run", model, "frames.txt", "--trace", into});
  }

  Names namesIn(const std::string& name) const {
    Names names;
    for (const auto& entry : fs::directory_iterator(folder_.path(name))) {
      names.push_back(entry.path().filename().string());
    }
    std::sort(names.begin(), names.end());
    return names;
  }

  void remove(const std::string& name) const { ASSERT_TRUE(fs::remove(folder_.path(name))); }

  // The values in a .npy file, as text.
  std::string valuesOf(const std::string& name) const {
    const ToolResult result =
        tool({"run", "identity" + std::to_string(widthOf(name)), name, "--stacked", "-o", "-"});
    EXPECT_EQ(result.status, 0) << result.err;
    return result.out;
  }

  TempFolder folder_;

 private:
  // The last number of the shape in the header.
  int widthOf(const std::string& name) const {
    const std::string bytes = contentOf(folder_.path(name));
    const std::size_t comma = bytes.find(", ", bytes.find("'shape'"));
    const int width = std::stoi(bytes.substr(comma + 2));
    std::string model = "MultiLayerNNModel_v2\nsoftmax 0\nnum_layers 1\nlayer 1 size " +
                        std::to_string(width) + " " + std::to_string(width + 1) +
                        "\nact_fn linear\n";
    for (int r = 0; r < width; ++r) {
      model += "0";
      for (int c = 0; c < width; ++c) model += r == c ? " 1" : " 0";
      model += "\n";
    }
    folder_.write("identity" + std::to_string(width), model);
    return width;
  }
};

using RunTrace = TraceTest;
using CompareCommandTest = TraceTest;

TEST_F(RunTrace, writesWhatEveryLayerComputes) {
  const ToolResult result = trace("model", "traced");
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.err, "");
  EXPECT_EQ(result.out, tool({"run", "model", "frames.txt"}).out);
  EXPECT_EQ(namesIn("traced"), (Names{"inputs.npy", "layer-1-affine.npy", "layer-1.npy",
                                      "layer-2-affine.npy", "layer-2.npy", "outputs.npy"}));
  EXPECT_EQ(valuesOf("traced/inputs.npy"), "1 1\n1 2\n2 3\n");
  EXPECT_EQ(valuesOf("traced/layer-1-affine.npy"), "-2\n0\n3\n");
  EXPECT_EQ(valuesOf("traced/layer-1.npy"), "0\n0\n3\n");
  EXPECT_EQ(valuesOf("traced/layer-2-affine.npy"), "0 0.5\n0 0.5\n3 3.5\n");
  EXPECT_EQ(valuesOf("traced/layer-2.npy"), "0 0.5\n0 0.5\n3 3.5\n");
  EXPECT_EQ(valuesOf("traced/outputs.npy"), "0 0.5\n0 0.5\n3 3.5\n");
}

TEST_F(RunTrace, keepsALongRecordingInOrder) {
  std::string frames;
  for (int frame = 0; frame < 600; ++frame) frames += std::to_string(frame) + "\n";
  folder_.write("frames.txt", frames);
  ASSERT_EQ(trace("model", "traced").status, 0);
  ASSERT_EQ(tool({"run", "model", "frames.txt", "-o", "outputs.npy"}).status, 0);
  EXPECT_EQ(contentOf(folder_.path("traced/outputs.npy")), contentOf(folder_.path("outputs.npy")));
}

TEST_F(RunTrace, givesSeveralRecordingsAFolderEach) {
  const ToolResult result =
      tool({"run", "model", "frames.txt", "more.txt", "--trace", "traced", "-o", "results"});
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.err, "");
  EXPECT_EQ(namesIn("traced"), (Names{"frames", "more"}));
  EXPECT_EQ(valuesOf("traced/more/inputs.npy"), "7 7\n");
  EXPECT_EQ(namesIn("results"), (Names{"frames.txt", "more.txt"}));
}

TEST_F(RunTrace, replacesItsOwnFilesOnly) {
  ASSERT_EQ(trace("model", "traced").status, 0);
  folder_.write("traced/notes.txt", "mine");
  ASSERT_EQ(trace("other", "traced").status, 0);
  EXPECT_EQ(valuesOf("traced/outputs.npy"), "0 0.75\n0 0.75\n3 3.75\n");
  EXPECT_EQ(contentOf(folder_.path("traced/notes.txt")), "mine");

  folder_.write("traced/layer-3.npy", "of a deeper model");
  const ToolResult result = trace("model", "traced");
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.err,
            "ERROR: the folder 'traced' holds the trace of another model (layer-3.npy); remove it "
            "first\n");
  EXPECT_EQ(valuesOf("traced/outputs.npy"), "0 0.75\n0 0.75\n3 3.75\n");
}

TEST_F(RunTrace, refusesWhatItCannotName) {
  folder_.write("frames.csv", "1\n");
  ToolResult result = tool({"run", "model", "frames.txt", "frames.csv", "--trace", "traced"});
  EXPECT_EQ(result.status, 2);
  EXPECT_EQ(result.err, "ERROR: two traces would be called 'frames' in the folder 'traced'\n");
  result = tool({"run", "model", "frames.txt", "-", "--trace", "traced"}, "1\n");
  EXPECT_EQ(result.status, 2);
  EXPECT_EQ(result.err, "ERROR: the trace of standard input has no name in the folder 'traced'\n");
  EXPECT_FALSE(fs::exists(folder_.path("traced")));
  EXPECT_EQ(tool({"run", "model", "-", "--trace", "traced"}, "1\n").status, 0);
}

TEST_F(RunTrace, failsWhereItCannotWrite) {
  const ToolResult result = trace("model", "model");
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.out, "");
  EXPECT_EQ(contentOf(folder_.path("model")), kModel);
}

TEST_F(CompareCommandTest, findsATraceSameAsItself) {
  ASSERT_EQ(trace("model", "ours").status, 0);
  ASSERT_EQ(trace("model", "theirs").status, 0);
  const ToolResult result = tool({"compare", "ours", "theirs", "--tolerance", "0"});
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.err, "");
  EXPECT_EQ(result.out,
            "stage           frames  values  largest  rms  ulp  cosine\n"
            "inputs               3       2        0    0    0       1\n"
            "layer-1-affine       3       1        0    0    0       1\n"
            "layer-1              3       1        0    0    0       1\n"
            "layer-2-affine       3       2        0    0    0       1\n"
            "layer-2              3       2        0    0    0       1\n"
            "outputs              3       2        0    0    0       1\n"
            "first to differ: none\n");
}

TEST_F(CompareCommandTest, namesTheFirstLayerThatDiffers) {
  ASSERT_EQ(trace("model", "ours").status, 0);
  ASSERT_EQ(trace("other", "theirs").status, 0);
  const ToolResult result = tool({"compare", "ours", "theirs"});
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.out.substr(result.out.find("first")),
            "first to differ: layer-2-affine, by 0.25 at frame 0, unit 1 (0.5 | 0.75)\n");
  EXPECT_EQ(tool({"compare", "ours", "theirs", "--tolerance", "0.25"}).status, 0);
  EXPECT_EQ(tool({"compare", "ours", "theirs", "--tolerance", "0.2499"}).status, 1);
}

TEST_F(CompareCommandTest, ordersLayersByNumber) {
  fs::create_directory(folder_.path("ours"));
  for (const char* name : {"outputs", "layer-10", "layer-9", "layer-9-affine", "inputs"}) {
    folder_.write(std::string("ours/") + name + ".npy", "1 2\n");
  }
  const ToolResult result = tool({"compare", "ours", "ours"});
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.out,
            "stage           frames  values  largest  rms  ulp  cosine\n"
            "inputs               1       2        0    0    0       1\n"
            "layer-9-affine       1       2        0    0    0       1\n"
            "layer-9              1       2        0    0    0       1\n"
            "layer-10             1       2        0    0    0       1\n"
            "outputs              1       2        0    0    0       1\n"
            "first to differ: none\n");
}

TEST_F(CompareCommandTest, countsWhatOnlyOneHasUnlessToldNotTo) {
  ASSERT_EQ(trace("model", "ours").status, 0);
  ASSERT_EQ(trace("model", "theirs").status, 0);
  remove("theirs/layer-1-affine.npy");
  remove("ours/outputs.npy");
  const ToolResult result = tool({"compare", "ours", "theirs"});
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.out,
            "stage           frames  values  largest  rms  ulp  cosine\n"
            "inputs               3       2        0    0    0       1\n"
            "layer-1-affine   3 | -   1 | -        -    -    -       -\n"
            "layer-1              3       1        0    0    0       1\n"
            "layer-2-affine       3       2        0    0    0       1\n"
            "layer-2              3       2        0    0    0       1\n"
            "outputs          - | 3   - | 2        -    -    -       -\n"
            "first to differ: layer-1-affine, which only 'ours' has\n");
  const ToolResult common = tool({"compare", "ours", "theirs", "--common"});
  EXPECT_EQ(common.status, 0);
  EXPECT_EQ(common.out.find("outputs"), std::string::npos);
  EXPECT_EQ(common.out.find("layer-1-affine"), std::string::npos);
}

TEST_F(CompareCommandTest, seesOtherShapes) {
  ASSERT_EQ(trace("model", "ours").status, 0);
  ASSERT_EQ(trace("model", "theirs").status, 0);
  folder_.write("theirs/layer-1.npy", "0\n0\n3\n4\n");
  const ToolResult result = tool({"compare", "ours", "theirs"});
  EXPECT_EQ(result.status, 1);
  EXPECT_NE(result.out.find("layer-1          3 | 4       1        -    -    -       -\n"),
            std::string::npos)
      << result.out;
  EXPECT_NE(result.out.find("first to differ: layer-1, whose shapes differ\n"), std::string::npos);
}

TEST_F(CompareCommandTest, countsAValueThatIsNoNumberAsDifferent) {
  fs::create_directory(folder_.path("ours"));
  fs::create_directory(folder_.path("theirs"));
  folder_.write("ours/outputs.npy", "1 nan inf\n");
  folder_.write("theirs/outputs.npy", "1 nan inf\n");
  EXPECT_EQ(tool({"compare", "ours", "theirs"}).status, 0);
  folder_.write("theirs/outputs.npy", "1 2 inf\n");
  const ToolResult result = tool({"compare", "ours", "theirs", "--tolerance", "1e300"});
  EXPECT_EQ(result.status, 1);
  EXPECT_NE(result.out.find("first to differ: outputs, by inf at frame 0, unit 1 (nan | 2)\n"),
            std::string::npos)
      << result.out;
}

TEST_F(CompareCommandTest, comparesRecordingByRecording) {
  for (const char* model : {"model", "other"}) {
    ASSERT_EQ(tool({"run", model, "frames.txt", "more.txt", "--trace", std::string("by-") + model})
                  .status,
              0);
  }
  const ToolResult result = tool({"compare", "--json", "by-model", "by-other"});
  EXPECT_EQ(result.status, 1);
  const Json json = Json::parse(result.out);
  EXPECT_EQ(json["same"], false);
  EXPECT_EQ(json["tolerance"], 1e-4);
  ASSERT_EQ(json["traces"].size(), 2u);
  EXPECT_EQ(json["traces"][0]["recording"], "frames");
  EXPECT_EQ(json["traces"][1]["recording"], "more");
  EXPECT_EQ(json["traces"][1]["first_to_differ"], "layer-2-affine");
  const Json stage = json["traces"][1]["stages"][3];
  EXPECT_EQ(stage["differs"], true);
  EXPECT_EQ(stage["a"], Json::parse(R"({"frames": 1, "values": 2})"));
  EXPECT_EQ(stage["difference"]["largest"], 0.25);
  EXPECT_EQ(stage["place"], Json::parse(R"({"frame": 0, "unit": 1, "a": 16.5, "b": 16.75})"));

  fs::remove_all(folder_.path("by-other/more"));
  EXPECT_EQ(Json::parse(tool({"compare", "--json", "by-model", "by-other", "--tolerance", "1"})
                            .out)["traces"][1]["first_to_differ"],
            "inputs");
  EXPECT_EQ(tool({"compare", "by-model", "by-other", "--tolerance", "1", "--common"}).status, 0);
}

TEST_F(CompareCommandTest, isInTroubleWithFoldersItCannotUse) {
  ASSERT_EQ(trace("model", "ours").status, 0);
  fs::create_directory(folder_.path("empty"));
  fs::create_directory(folder_.path("odd"));
  for (const char* name : {"layer-01", "layer-0", "layer--1", "layer-1-", "layer-x", "frames"}) {
    folder_.write(std::string("odd/") + name + ".npy", "1\n");
  }
  fs::create_directory(folder_.path("broken"));
  folder_.write("broken/inputs.npy", "\x93NUMPY");
  struct Case {
    std::vector<std::string> folders;
    std::string message;
  };
  const Case cases[] = {
      {{"ours", "absent"}, "ERROR: cannot read the folder 'absent': No such file or directory\n"},
      {{"model", "ours"}, "ERROR: cannot read the folder 'model': Not a directory\n"},
      {{"ours", "empty"}, "ERROR: 'ours' and 'empty' have no stage of a trace in common\n"},
      {{"odd", "odd"}, "ERROR: 'odd' and 'odd' have no stage of a trace in common\n"},
      {{"ours", "broken"}, "ERROR: 'broken/inputs.npy': .npy file ends before its header\n"},
  };
  for (const Case& trouble : cases) {
    const ToolResult result = tool({"compare", trouble.folders[0], trouble.folders[1]});
    EXPECT_EQ(result.status, 2) << trouble.message;
    EXPECT_EQ(result.err, trouble.message);
    EXPECT_EQ(result.out, "");
  }
  EXPECT_EQ(tool({"compare", "ours"}).status, 2);
  EXPECT_EQ(tool({"compare", "ours", "ours", "--tolerance", "-1"}).status, 2);
}

// The posteriors of another framework, in 64 bits, against the trace of the network.
TEST(CompareCommandOnDigits, agreesWithTheExpectedPosteriors) {
  const std::string digits = digitsFolder();
  if (digits.empty()) GTEST_SKIP() << mlnn::test::kNoDigits;
  const TempFolder folder;
  const std::string recording = "3_jackson_1.npy";
  ASSERT_EQ(runTool({"run", digits + "/digits-bn.txt", digits + "/frames/" + recording, "--trace",
                     folder.path("ours")})
                .status,
            0);
  fs::create_directory(folder.path("theirs"));
  fs::copy_file(digits + "/posteriors-bn/" + recording, folder.path("theirs/outputs.npy"));
  fs::copy_file(digits + "/stacked-bn/" + recording, folder.path("theirs/inputs.npy"));
  const ToolResult result =
      runTool({"compare", "ours", "theirs", "--common", "--json"}, "", folder.path());
  EXPECT_EQ(result.status, 0);
  const Json stages = Json::parse(result.out)["traces"][0]["stages"];
  ASSERT_EQ(stages.size(), 2u);
  EXPECT_EQ(stages[0]["difference"]["differing"], 0);
  EXPECT_GT(stages[1]["difference"]["values"], 0);
}

}  // namespace
