#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/tools/support/ToolProcess.h"

namespace {

using mlnn::test::contentOf;
using mlnn::test::runTool;
using mlnn::test::TempFolder;
using mlnn::test::ToolResult;
using Names = std::vector<std::string>;

std::string head(const std::string& lines, const std::string& softmax = "1") {
  return "MultiLayerNNModel_v2\nsoftmax " + softmax + "\n" + lines;
}

std::string layers(const std::string& first, const std::string& second,
                   const std::string& numbers = "1\t2\n3\t4\n") {
  const std::size_t end = numbers.find('\n') + 1;
  return "num_layers 2\nlayer 1 size 1 2\nact_fn " + first + "\n" + numbers.substr(0, end) +
         "layer 2 size 1 2\nact_fn " + second + "\n" + numbers.substr(end);
}

class EditCommandTest : public ::testing::Test {
 protected:
  EditCommandTest() {
    folder_.write("in.txt", head("# old note\n# NVP a 1\n# NVP b 2\n") + layers("relu", "linear"));
  }

  ToolResult edit(const std::vector<std::string>& options, const std::string& in = "in.txt") const {
    std::vector<std::string> command = {"edit", in, "-"};
    command.insert(command.end(), options.begin(), options.end());
    return runTool(command, "", folder_.path());
  }

  void expectResult(const std::vector<std::string>& options, const std::string& text) const {
    const ToolResult result = edit(options);
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.err, "");
    EXPECT_EQ(result.out, text);
  }

  void expectRefused(const std::vector<std::string>& options, int status,
                     const std::string& message) const {
    std::vector<std::string> command = {"edit", "in.txt", "out.txt"};
    command.insert(command.end(), options.begin(), options.end());
    const ToolResult result = runTool(command, "", folder_.path());
    EXPECT_EQ(result.status, status);
    EXPECT_EQ(result.err, message);
    EXPECT_EQ(folder_.names(), Names{"in.txt"});
  }

  const std::string heading_ = head("# old note\n# NVP a 1\n# NVP b 2\n");
  TempFolder folder_;
};

TEST_F(EditCommandTest, withoutOptionsNothingChanges) {
  expectResult({}, heading_ + layers("relu", "linear"));
}

TEST_F(EditCommandTest, propertiesAndNotes) {
  expectResult({"--set", "c=x = y", "--set", "a=", "--unset", "b", "--note", "new note", "--note",
                "# odd one"},
               head("# old note\n# new note\n# # odd one\n# NVP a \n# NVP c x = y\n") +
                   layers("relu", "linear"));
}

TEST_F(EditCommandTest, unsetComesBeforeSet) {
  expectResult({"--set", "a=3", "--unset", "a"},
               head("# old note\n# NVP a 3\n# NVP b 2\n") + layers("relu", "linear"));
}

TEST_F(EditCommandTest, removingWhatIsNotThereIsAWarning) {
  const ToolResult result = edit({"--unset", "nope"});
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.err, "Warning: there is no property 'nope'\n");
  EXPECT_EQ(result.out, heading_ + layers("relu", "linear"));
}

TEST_F(EditCommandTest, softmaxOffLeavesTheOutputLinear) {
  expectResult({"--softmax", "off"},
               head("# old note\n# NVP a 1\n# NVP b 2\n", "0") + layers("relu", "linear"));
}

TEST_F(EditCommandTest, softmaxOnMakesTheOutputLinear) {
  const std::string text = head("", "0") + layers("relu", "tanh");
  folder_.write("off.txt", text);
  EXPECT_EQ(edit({}, "off.txt").out, text);
  EXPECT_EQ(edit({"--softmax", "on"}, "off.txt").out, head("") + layers("relu", "linear"));
}

TEST_F(EditCommandTest, anImageCannotHoldThatThereIsNoSoftmax) {
  folder_.write("in.mlnn", "");
  ASSERT_EQ(runTool({"convert", "in.txt", "in.mlnn"}, "", folder_.path()).status, 0);
  const std::string image = contentOf(folder_.path("in.mlnn"));
  const ToolResult result =
      runTool({"edit", "in.mlnn", "in.mlnn", "--softmax", "off"}, "", folder_.path());
  EXPECT_EQ(result.status, 2);
  EXPECT_EQ(result.out, "");
  EXPECT_EQ(result.err,
            "ERROR: --softmax off: an image does not hold it; write a text, or give it to "
            "`mlnn run`\n");
  EXPECT_EQ(contentOf(folder_.path("in.mlnn")), image);
  EXPECT_EQ(runTool({"edit", "in.mlnn", "in.mlnn", "--softmax", "on"}, "", folder_.path()).status,
            0);
  EXPECT_EQ(contentOf(folder_.path("in.mlnn")), image);
  ASSERT_EQ(runTool({"convert", "in.mlnn", "on.txt"}, "", folder_.path()).status, 0);
  ASSERT_EQ(runTool({"edit", "in.mlnn", "off.txt", "--softmax", "off"}, "", folder_.path()).status,
            0);
  std::string expected = contentOf(folder_.path("on.txt"));
  expected.replace(expected.find("softmax 1"), 9, "softmax 0");
  EXPECT_EQ(contentOf(folder_.path("off.txt")), expected);
}

TEST_F(EditCommandTest, activationOfAllHiddenLayersOrOne) {
  expectResult({"--act-fn", "tanh"}, heading_ + layers("tanh", "linear"));
  expectResult({"--act-fn", "tanh", "--act-fn-layer", "1=silu"},
               heading_ + layers("silu", "linear"));
  expectResult({"--act-fn-layer", "2=elu", "--softmax", "off"},
               head("# old note\n# NVP a 1\n# NVP b 2\n", "0") + layers("relu", "elu"));
}

// No warning about activations that the file does not record, since they are set.
TEST_F(EditCommandTest, activationOfAFileThatRecordsNone) {
  folder_.write("v1.txt",
                "MultiLayerNNModel\nnum_layers 2\nlayer 1 size 1 2\n1 2\nlayer 2 size 1 2\n3 4\n");
  const ToolResult result = edit({"--act-fn", "tanh"}, "v1.txt");
  EXPECT_EQ(result.err, "");
  EXPECT_EQ(result.out, head("") + layers("tanh", "linear"));
}

TEST_F(EditCommandTest, activationOfBatchNormLayersGoesIntoTheProperty) {
  const std::string block = "size 1 1\n2\ngamma_beta\n1\t0\t1\t0\n";
  const std::string blocks =
      "num_layers 2\nbatch_norm_layer 1 " + block + "batch_norm_layer 2 " + block;
  folder_.write("bn.txt", head("# NVP hidden_act_fn relu\n") + blocks);
  const ToolResult result = edit({"--act-fn", "elu"}, "bn.txt");
  EXPECT_EQ(result.err,
            "info: the activation of the hidden batch-norm layers is written as the property "
            "hidden_act_fn (elu)\n");
  EXPECT_EQ(result.out, head("# NVP hidden_act_fn elu\n") + blocks);
}

TEST_F(EditCommandTest, scaleAndZero) {
  expectResult({"--scale", "-0.5"}, heading_ + layers("relu", "linear", "-0.5\t-1\n-1.5\t-2\n"));
  expectResult({"--zero"}, heading_ + layers("relu", "linear", "0\t0\n0\t0\n"));
}

// A good model is not replaced by one that no command could read.
TEST_F(EditCommandTest, refusesAScaleThatNoTextCanHold) {
  folder_.write("large.txt", head("") + layers("relu", "linear", "100\t1\n1\t1\n"));
  const ToolResult result =
      runTool({"edit", "large.txt", "large.txt", "--scale", "1e38"}, "", folder_.path());
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.err,
            "ERROR: the text format cannot hold values that are not finite: there is 1 in layer "
            "1\n");
  EXPECT_EQ(contentOf(folder_.path("large.txt")),
            head("") + layers("relu", "linear", "100\t1\n1\t1\n"));
  EXPECT_EQ(runTool({"edit", "large.txt", "image", "--scale", "1e38", "--to", "binary"}, "",
                    folder_.path())
                .status,
            0);
}

TEST_F(EditCommandTest, layersAreDeletedFromTheOutputEnd) {
  const std::string end = "num_layers 1\nlayer 1 size 1 2\nact_fn ";
  expectResult({"--delete-layers", "1", "--softmax", "off"},
               head("# old note\n# NVP a 1\n# NVP b 2\n", "0") + end + "relu\n1\t2\n");
  const ToolResult result = edit({"--delete-layers", "1"});
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.err,
            "info: layer 1, which was relu, is linear as the output layer under a softmax\n");
  EXPECT_EQ(result.out, heading_ + end + "linear\n1\t2\n");
}

TEST_F(EditCommandTest, aLayerIsAddedAfterOthersAreDeleted) {
  const std::vector<std::string> options = {"--add-layer", "2",       "--delete-layers", "1",
                                            "--act-fn",    "sigmoid", "--zero"};
  expectResult(options, head("# old note\n# added randomly initialised layer 2, initScale 0.1\n"
                             "# NVP a 1\n# NVP b 2\n") +
                            "num_layers 2\nlayer 1 size 1 2\nact_fn sigmoid\n0\t0\n"
                            "layer 2 size 2 2\nact_fn linear\n0\t0\n0\t0\n");
}

TEST_F(EditCommandTest, theAddedLayerHasRandomWeights) {
  const auto added = [this](const std::vector<std::string>& more) {
    std::vector<std::string> options = {"--add-layer", "3"};
    options.insert(options.end(), more.begin(), more.end());
    const std::string text = edit(options).out;
    return text.substr(text.find("layer 3 size"));
  };
  EXPECT_EQ(added({}), added({}));
  EXPECT_EQ(added({"--seed", "5"}), added({"--seed", "5"}));
  EXPECT_NE(added({"--seed", "5"}), added({"--seed", "6"}));
  EXPECT_NE(added({"--init-scale", "2"}), added({}));
  EXPECT_EQ(added({}).substr(0, 33), "layer 3 size 3 2\nact_fn linear\n0\t");
  const std::string batchNorm = edit({"--add-layer", "3", "--batch-norm"}).out;
  EXPECT_NE(batchNorm.find("batch_norm_layer 3 size 3 1\n"), std::string::npos);
}

TEST_F(EditCommandTest, aModelCanReplaceItself) {
  const ToolResult result =
      runTool({"edit", "in.txt", "in.txt", "--set", "b=3"}, "", folder_.path());
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(contentOf(folder_.path("in.txt")),
            head("# old note\n# NVP a 1\n# NVP b 3\n") + layers("relu", "linear"));
  EXPECT_EQ(folder_.names(), Names{"in.txt"});
}

TEST_F(EditCommandTest, theOtherFormatIsWrittenToo) {
  ASSERT_EQ(runTool({"edit", "in.txt", "out.mlnn", "--scale", "2"}, "", folder_.path()).status, 0);
  const ToolResult text =
      runTool({"edit", "out.mlnn", "-", "--to", "ascii", "--scale", "0.5"}, "", folder_.path());
  EXPECT_EQ(text.status, 0);
  EXPECT_NE(text.out.find(layers("relu", "linear")), std::string::npos) << text.out;
}

TEST_F(EditCommandTest, refusesTextThatTheHeadCannotHold) {
  expectRefused({"--set", "a"}, 2, "ERROR: --set: expected KEY=VALUE but found 'a'\n");
  expectRefused({"--set", "=a"}, 2, "ERROR: a property needs a name before the '='\n");
  expectRefused({"--set", "a b=c"}, 2,
                "ERROR: the name of a property cannot have a blank: 'a b'\n");
  expectRefused({"--set", "a=b\nc"}, 2, "ERROR: a property cannot have a line feed: 'a=b\\nc'\n");
  expectRefused({"--note", "a\nnum_layers 0"}, 2,
                "ERROR: a note cannot have a line feed: 'a\\nnum_layers 0'\n");
}

// What the reader would take for something other than a note.
TEST_F(EditCommandTest, refusesNotesThatWouldNotStayNotes) {
  for (const std::string note :
       {"NVP a b", "NVP a", "nn_tune comment -win_size_left 3", "nn_tune feat_desc",
        "nn_tune feat_desc mel_deltas:bands=1,left=0,right=0,deltas=0,line_kernels=0,"
        "line_kernel_width=0",
        "x deltas_norm_minvals y"}) {
    expectRefused({"--note", note}, 2,
                  "ERROR: a text model would not keep this as a note, but take it for something "
                  "else: '" +
                      note + "'\n");
  }
}

TEST_F(EditCommandTest, refusesLayersThatAreNotThere) {
  expectRefused({"--delete-layers", "3"}, 1, "ERROR: cannot delete 3 layers: the model has 2\n");
  expectRefused({"--act-fn-layer", "3=relu"}, 1,
                "ERROR: there is no layer 3: the model has 2 layers\n");
  expectRefused({"--act-fn-layer", "2=relu"}, 1,
                "ERROR: layer 2 is the output layer, which is linear under a softmax "
                "(--softmax off)\n");
  expectRefused({"--delete-layers", "2", "--add-layer", "3"}, 1,
                "ERROR: NN Model: cannot addLayerRndInit without previous hidden layers\n"
                "ERROR: cannot add a layer to a model that has none (mlnn new makes models)\n");
  expectRefused({"--add-layer", "2000000000"}, 1,
                "ERROR: the parameters would take more than 2147483647 bytes, which is the most "
                "that a binary image can hold\n");
}

TEST_F(EditCommandTest, refusesOptionsThatMakeNoSense) {
  const std::string hint = "Run with --help for more information.\n";
  expectRefused({"--act-fn-layer", "0=relu"}, 2,
                "ERROR: --act-fn-layer: expected the number of a layer but found '0'\n");
  expectRefused({"--act-fn-layer", "relu"}, 2,
                "ERROR: --act-fn-layer: expected K=NAME but found 'relu'\n");
  expectRefused({"--act-fn-layer", "1=rel"}, 2,
                "ERROR: expected one of linear, sigmoid, tanh, relu, leaky_relu, elu, softplus, "
                "silu but found 'rel'\n");
  expectRefused({"--scale", "inf"}, 2, "ERROR: --scale: expected a finite number\n");
  expectRefused({"--seed", "1"}, 2, "ERROR: --seed requires --add-layer\n" + hint);
  expectRefused({"--zero", "--scale", "1"}, 2, "ERROR: --zero excludes --scale\n" + hint);
}

}  // namespace
