#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/support/DigitsFolder.h"
#include "tests/support/SourceTree.h"
#include "tests/tools/support/CommandFixture.h"

namespace {

using mlnn::test::contentOf;
using mlnn::test::digitsFolder;
using mlnn::test::runTool;
using mlnn::test::sourcePath;
using mlnn::test::ToolResult;

// A model of one layer with two inputs and one output.
std::string modelWith(const std::string& numbers, const std::string& head = "softmax 0\n") {
  return "MultiLayerNNModel_v2\n" + head + "num_layers 1\nlayer 1 size 1 3\nact_fn linear\n" +
         numbers + "\n";
}

class AverageCommandTest : public mlnn::test::CommandFixture {
 protected:
  AverageCommandTest() : CommandFixture("average") {
    folder_.write("a.txt", modelWith("1\t2\t0.1", "softmax 0\n# first\n"));
    folder_.write("b.txt", modelWith("3\t5\t0.1", "softmax 0\n# second\n"));
  }
};

TEST_F(AverageCommandTest, writesTheMeanAndNotesIt) {
  const ToolResult result = run({"a.txt", "b.txt", "-"});
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.err, "");
  EXPECT_EQ(result.out, modelWith("2\t3.5\t0.100000001",
                                  "softmax 0\n# first\n# mean of 2 models, weights 1,1\n"));
}

TEST_F(AverageCommandTest, weightsNeedNotAddUpToOne) {
  const std::string expected =
      modelWith("1.5\t2.75\t0.100000001", "softmax 0\n# first\n# mean of 2 models, weights 6,2\n");
  EXPECT_EQ(run({"a.txt", "b.txt", "-", "--weights", "6,2"}).out, expected);
  EXPECT_EQ(run({"--weights", "6,2", "a.txt", "b.txt", "-"}).out, expected);
  EXPECT_EQ(run({"a.txt", "b.txt", "-", "--weights", "1e308,1e308"}).out,
            modelWith("2\t3.5\t0.100000001",
                      "softmax 0\n# first\n# mean of 2 models, weights 1e+308,1e+308\n"));
}

TEST_F(AverageCommandTest, aModelAndItsCopiesHaveTheModelAsTheirMean) {
  for (const std::string name : {"synth.txt", "synth-bn.txt"}) {
    const std::string model = sourcePath("examples/digits/" + name);
    for (const std::size_t copies : {1u, 2u, 3u, 7u}) {
      std::vector<std::string> arguments(copies, model);
      arguments.push_back("mean.txt");
      ASSERT_EQ(run(arguments).status, 0);
      EXPECT_EQ(contentOf(folder_.path("mean.txt")), contentOf(model)) << copies;
    }
    ASSERT_EQ(run({model, model, "mean.txt", "--weights", "0.1,0.6"}).status, 0);
    EXPECT_EQ(contentOf(folder_.path("mean.txt")), contentOf(model));
  }
}

TEST_F(AverageCommandTest, readsAndWritesEitherFormat) {
  folder_.write("c.txt", modelWith("1\t2\t0.1", "softmax 1\n"));
  folder_.write("d.txt", modelWith("3\t5\t0.1", "softmax 1\n"));
  ASSERT_EQ(runTool({"convert", "c.txt", "c.mlnn"}, "", folder_.path()).status, 0);
  ASSERT_EQ(run({"c.mlnn", "d.txt", "mean.mlnn"}).status, 0);
  const ToolResult text =
      runTool({"convert", "--to", "ascii", "mean.mlnn", "-"}, "", folder_.path());
  EXPECT_NE(text.out.find("\n2\t3.5\t0.100000001\n"), std::string::npos) << text.out;
  const ToolResult image =
      run({"-", "d.txt", "-", "--to", "binary"}, contentOf(folder_.path("c.mlnn")));
  EXPECT_EQ(image.status, 0);
  EXPECT_EQ(image.out, contentOf(folder_.path("mean.mlnn")));
}

// An image has no place for the note about the mean, which is nothing lost.
TEST_F(AverageCommandTest, strictDoesNotMindTheMissingNoteOfAnImage) {
  folder_.write("c.txt", modelWith("1\t2\t3", "softmax 1\n"));
  folder_.write("d.txt", modelWith("2\t3\t4", "softmax 1\n"));
  ASSERT_EQ(runTool({"convert", "c.txt", "c.mlnn"}, "", folder_.path()).status, 0);
  ASSERT_EQ(runTool({"convert", "d.txt", "d.mlnn"}, "", folder_.path()).status, 0);
  const ToolResult result = run({"c.mlnn", "d.mlnn", "mean.mlnn", "--strict"});
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.err, "");
}

TEST_F(AverageCommandTest, refusesAnotherShapeAndNamesTheLayer) {
  folder_.write("wide.txt",
                "MultiLayerNNModel_v2\nsoftmax 0\nnum_layers 1\nlayer 1 size 1 4\nact_fn linear\n"
                "1 2 3 4\n");
  folder_.write("old.txt", "what was there");
  expectRefused({"a.txt", "b.txt", "wide.txt", "old.txt"}, 1,
                "ERROR: 'wide.txt' has another shape than 'a.txt': its layer 1 is a plain layer of "
                "3 x 1, linear instead of a plain layer of 2 x 1, linear\n");
  EXPECT_EQ(contentOf(folder_.path("old.txt")), "what was there");
}

TEST_F(AverageCommandTest, refusesAModelThatDoesNotLoad) {
  folder_.write("bad.txt", "nothing\n");
  expectRefused({"a.txt", "bad.txt", "out.txt"}, 1,
                "ERROR: MultiLayerNNModel::deserializeAscii: Invalid neural network model file. "
                "Didn't find expected header on first line.\n"
                "ERROR: could not load the model 'bad.txt'\n");
}

TEST_F(AverageCommandTest, warnsOfOtherFeatures) {
  const std::string features =
      "softmax 0\n# nn_tune feat_desc "
      "mel_deltas:bands=2,left=0,right=0,deltas=0,line_kernels=0,line_kernel_width=0\n";
  std::string values = "1";
  for (int i = 1; i < 120; ++i) values += ",0";
  const std::string normalisation =
      "softmax 0\n# TRAIN rbm_train a b -deltas_norm_minvals " + values + "\n";
  folder_.write("features.txt", modelWith("1\t2\t3", features));
  folder_.write("norm.txt", modelWith("1\t2\t3", normalisation));
  EXPECT_EQ(run({"a.txt", "features.txt", "out.txt"}).err,
            "Warning: 'features.txt' has another feature description than the first model, whose "
            "stays\n");
  EXPECT_EQ(run({"a.txt", "norm.txt", "out.txt"}).err,
            "Warning: 'norm.txt' has another normalisation than the first model, whose stays\n");
}

TEST_F(AverageCommandTest, refusesWeightsThatMakeNoMean) {
  expectRefused({"a.txt", "b.txt", "out.txt", "--weights", "1,2,3"}, 2,
                "ERROR: --weights: expected 2 weights, one for each model, but found 3\n");
  expectRefused({"a.txt", "b.txt", "out.txt", "--weights", "1,0"}, 2,
                "ERROR: --weights: expected numbers above 0 but found 0\n");
  expectRefused({"a.txt", "b.txt", "out.txt", "--weights", "1,nan"}, 2,
                "ERROR: --weights: expected numbers above 0 but found nan\n");
}

TEST_F(AverageCommandTest, takesOneModelFromTheStandardInput) {
  expectRefused({"-", "-", "out.txt"}, 2,
                "ERROR: only one of the files can be the standard input\n");
}

TEST_F(AverageCommandTest, changesNothingInAModelThatIsAveragedWithItself) {
  const std::string digits = digitsFolder();
  if (digits.empty()) GTEST_SKIP() << mlnn::test::kNoDigits;
  for (const char* name : {"/digits-small.txt", "/digits-bn.txt", "/digits-bn-folded.txt"}) {
    const std::string model = digits + name;
    EXPECT_EQ(run({model, model, "mean.txt", "--weights", "0.3,0.7"}).status, 0) << name;
    EXPECT_TRUE(contentOf(folder_.path("mean.txt")) == contentOf(model)) << name;
  }
}

TEST_F(AverageCommandTest, needsAModelAndAnOutput) {
  const ToolResult result = run({"a.txt"});
  EXPECT_EQ(result.status, 2);
  EXPECT_EQ(contentOf(folder_.path("a.txt")), modelWith("1\t2\t0.1", "softmax 0\n# first\n"));
}

}  // namespace
