#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <string>

#include "tests/tools/support/ToolProcess.h"

namespace {

using mlnn::test::contentOf;
using mlnn::test::runShell;
using mlnn::test::runTool;
using mlnn::test::shownOnTerminal;
using mlnn::test::TempFolder;
using mlnn::test::ToolResult;

constexpr char kModel[] =
    "MultiLayerNNModel_v2\nsoftmax 0\nloss 4\n8 4 2 1\n"
    "num_layers 1\nlayer 1 size 2 5\nact_fn relu\n0 1 1 1 1\n0 2 3 3 4\n";

std::size_t countOf(const std::string& text, const std::string& part) {
  std::size_t count = 0;
  for (std::size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) {
    ++count;
  }
  return count;
}

TEST(PlotCommandTest, sketchesWithAsciiCharacters) {
  const ToolResult result = runTool({"plot", "-", "--ascii", "--bins", "3"}, kModel);
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.err, "");
  EXPECT_EQ(result.out,
            "loss: 4 values, first 8, last 1\n"
            "         8 |#\n"
            "           |#\n"
            "           |#\n"
            "           |#\n"
            "           |##\n"
            "           |##\n"
            "           |###\n"
            "         0 |####\n"
            "            1 epoch 4\n"
            "\n"
            "weights of layer 1: 8 weights of plain layer, 4 to 2\n"
            "         4 |#\n"
            "           |#\n"
            "           |# #\n"
            "           |# #\n"
            "           |# #\n"
            "           |# #\n"
            "           |###\n"
            "         0 |###\n"
            "            1 weight 4\n");
}

TEST(PlotCommandTest, sketchesWithBlocks) {
  const ToolResult result = runTool({"plot", "-", "--unicode", "--bins", "3"}, kModel);
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.out.substr(0, result.out.find("\n\n")),
            "loss: 4 values, first 8, last 1\n"
            "         8 |█\n"
            "           |█\n"
            "           |█\n"
            "           |█\n"
            "           |██\n"
            "           |██\n"
            "           |███\n"
            "         0 |████\n"
            "            1 epoch 4");
}

TEST(PlotCommandTest, followsTheLocaleWhenNotTold) {
  const std::string model = "examples/digits/synth.txt";
  EXPECT_EQ(runShell("LC_ALL=C mlnn plot " + model).out, runTool({"plot", model, "--ascii"}).out);
  EXPECT_EQ(runShell("LC_ALL=C.UTF-8 mlnn plot " + model).out,
            runTool({"plot", model, "--unicode"}).out);
}

TEST(PlotCommandTest, keepsToTheWidth) {
  const ToolResult result =
      runTool({"plot", "examples/digits/synth.txt", "--ascii", "--width", "40"});
  for (std::size_t begin = 0; begin < result.out.size();) {
    const std::size_t end = result.out.find('\n', begin);
    const std::string line = result.out.substr(begin, end - begin);
    if (line.find('|') != std::string::npos) {
      EXPECT_LE(line.size(), 40u) << line;
    }
    begin = end + 1;
  }
}

TEST(PlotCommandTest, writesAPicture) {
  const TempFolder folder;
  const std::string picture = folder.path("model.svg");
  const ToolResult result = runTool({"plot", "-", "-o", picture, "--bins", "3"}, kModel);
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.out + result.err, "");
  const std::string svg = contentOf(picture);
  EXPECT_EQ(svg.substr(0, 45), "<svg xmlns=\"http://www.w3.org/2000/svg\" width");
  EXPECT_EQ(svg.substr(svg.size() - 7), "</svg>\n");
  EXPECT_EQ(countOf(svg, "<rect class=\"bar\""), 3u);
  EXPECT_EQ(countOf(svg, "<circle"), 4u);
  EXPECT_EQ(countOf(svg, "<path"), 1u);
  for (const char* label : {">loss<", ">epoch<", ">weights of layer 1<", ">weight<", ">count<"}) {
    EXPECT_NE(svg.find(label), std::string::npos) << label;
  }
}

TEST(PlotCommandTest, printsTheNumbersAsJson) {
  const ToolResult result = runTool({"plot", "-", "--json", "--bins", "3"}, kModel);
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.err, "");
  const auto json = nlohmann::json::parse(result.out);
  EXPECT_EQ(json["file"], "-");
  ASSERT_EQ(json["charts"].size(), 2u);
  EXPECT_EQ(json["charts"][0]["kind"], "curve");
  EXPECT_EQ(json["charts"][0]["title"], "loss");
  EXPECT_EQ(json["charts"][0]["values"], nlohmann::json({8, 4, 2, 1}));
  EXPECT_EQ(json["charts"][1]["kind"], "histogram");
  EXPECT_EQ(json["charts"][1]["x_low"], 1);
  EXPECT_EQ(json["charts"][1]["x_high"], 4);
  EXPECT_EQ(json["charts"][1]["values"], nlohmann::json({4, 1, 3}));
}

TEST(PlotCommandTest, escapesTheNameOfTheFile) {
  const TempFolder folder;
  const std::string model = folder.write("a<b>&\"\x1b.txt", kModel);
  const ToolResult result = runTool({"plot", model, "-o", "-"});
  EXPECT_EQ(result.status, 0);
  EXPECT_NE(result.out.find("a&lt;b&gt;&amp;&quot;\\x1b.txt: inputs 4 x 2 output classes</title>"),
            std::string::npos)
      << result.out.substr(0, 300);
}

// The text format has no place for such a weight, but it can be made by scaling.
TEST(PlotCommandTest, countsWhatIsNotFinite) {
  const TempFolder folder;
  const std::string model = folder.write("model.txt", kModel);
  const std::string image = folder.path("model.mlnn");
  ASSERT_EQ(runTool({"edit", model, image, "--scale", "3e38"}).status, 0);
  const ToolResult result = runTool({"plot", image, "--ascii"});
  EXPECT_EQ(result.status, 0);
  EXPECT_NE(result.out.find("8 weights of plain layer, 4 to 2, 4 values not finite, not drawn\n"),
            std::string::npos)
      << result.out;
}

TEST(PlotCommandTest, saysWhenThereIsNothingToDraw) {
  const ToolResult result =
      runTool({"plot", "-"}, "MultiLayerNNModel_v2\nsoftmax 1\nnum_layers 0\n");
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.out, "");
  EXPECT_EQ(result.err, "info: the model has neither curves nor weights to draw\n");
}

TEST(PlotCommandTest, leavesNoPictureOfAModelThatDoesNotLoad) {
  const TempFolder folder;
  const ToolResult result = runTool({"plot", "-", "-o", folder.path("model.svg")}, "no model");
  EXPECT_EQ(result.status, 1);
  EXPECT_TRUE(folder.names().empty());
}

TEST(PlotCommandTest, doesNotReplaceTheModel) {
  const TempFolder folder;
  const std::string model = folder.write("model.txt", kModel);
  const ToolResult result = runTool({"plot", model, "-o", model});
  EXPECT_EQ(result.status, 2);
  EXPECT_EQ(result.err, "ERROR: the result would replace its own model, '" + model + "'\n");
  EXPECT_EQ(contentOf(model), kModel);
}

// --- Recordings ---

// Class 0 where the first value is larger, surer the further they are apart.
constexpr char kWords[] =
    "MultiLayerNNModel_v2\nsoftmax 1\n# NVP labels no,yes\nnum_layers 1\n"
    "layer 1 size 2 3\nact_fn linear\n0 1 0\n0 0 1\n";

class PlotRecordingsTest : public testing::Test {
 protected:
  PlotRecordingsTest() {
    folder_.write("model.txt", kWords);
    folder_.write("a.txt", "9 0\n9 0\n0 9\n9 0\n");
    folder_.write("b.txt", "0 9\n0 0\n");
    folder_.write("labels.csv", "file,label\na.txt,no\nb.txt,no\n");
  }

  ToolResult plot(const std::string& options) const {
    return runShell("mlnn plot model.txt --frames a.txt b.txt " + options, folder_.path());
  }

  TempFolder folder_;
};

TEST_F(PlotRecordingsTest, sketchesPosteriorsAndConfusion) {
  const ToolResult result = plot("--labels labels.csv --ascii");
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.err, "");
  EXPECT_EQ(result.out.substr(result.out.find("a.txt")),
            "a.txt: decided no, is no\n"
            "        no |@@ @\n"
            "       yes |  @\n"
            "            0 frame 4\n"
            "\n"
            "b.txt: decided yes, is no\n"
            "        no | +\n"
            "       yes |@+\n"
            "            0 frame 2\n"
            "\n"
            "confusion: 1 of 2 right\n"
            "     no  yes\n"
            " no   1    1\n"
            "yes   0    0\n");
}

TEST_F(PlotRecordingsTest, drawsPosteriorsAndConfusion) {
  const ToolResult result = plot("--labels labels.csv -o -");
  EXPECT_EQ(result.status, 0);
  const std::string maps = result.out.substr(result.out.find(">a.txt<"));
  EXPECT_EQ(countOf(maps, "<rect class=\"bar\" fill-opacity=\"1.00\""), 5u);
  EXPECT_EQ(countOf(maps, "<rect class=\"bar\" fill-opacity=\"0.50\""), 2u);
  EXPECT_EQ(countOf(maps, "<rect class=\"bar\" fill-opacity=\"0.45\""), 2u);
  EXPECT_EQ(countOf(maps, "class=\"label\">1</text>"), 2u);
  EXPECT_EQ(countOf(maps, ">taken for</text>"), 1u);
}

TEST_F(PlotRecordingsTest, printsMapsAsJson) {
  const auto json = nlohmann::json::parse(plot("--json").out);
  ASSERT_EQ(json["charts"].size(), 3u);
  const auto map = json["charts"][2];
  EXPECT_EQ(map["kind"], "map");
  EXPECT_EQ(map["title"], "b.txt");
  EXPECT_EQ(map["columns"], 2);
  EXPECT_EQ(map["row_names"], nlohmann::json({"no", "yes"}));
  EXPECT_EQ(map["column_names"], nlohmann::json::array());
  EXPECT_EQ(map["values"][1], 0.5);
}

TEST_F(PlotRecordingsTest, leavesOutATableOfManyClasses) {
  std::string layer;
  std::string labels;
  for (int i = 0; i < 50; ++i) {
    layer += "0 " + std::to_string(i) + " 0\n";
    labels += "w" + std::to_string(i) + ".txt," + std::to_string(i) + "\n";
    folder_.write("w" + std::to_string(i) + ".txt", "1 0\n");
  }
  folder_.write("model.txt",
                "MultiLayerNNModel_v2\nsoftmax 1\nnum_layers 1\n"
                "layer 1 size 50 3\nact_fn linear\n" +
                    layer);
  folder_.write("labels.csv", "file,label\n" + labels);
  const ToolResult result =
      runShell("mlnn plot model.txt --frames w*.txt --labels labels.csv --json", folder_.path());
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.err,
            "info: so many classes occur that a table of them is not drawn; see 'mlnn report'\n");
  EXPECT_EQ(nlohmann::json::parse(result.out)["charts"].size(), 41u);  // weights, 40 recordings
}

TEST_F(PlotRecordingsTest, refusesOutputsThatAreNoPosteriors) {
  std::string model = kWords;
  model.replace(model.find("softmax 1"), 9, "softmax 0");
  folder_.write("model.txt", model);
  const ToolResult result = plot("");
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.err,
            "ERROR: --frames needs a model with a softmax, whose outputs are posteriors\n");
}

TEST_F(PlotRecordingsTest, doesNotReplaceRecordingsOrLabels) {
  EXPECT_EQ(plot("--labels labels.csv -o b.txt").err,
            "ERROR: the result would replace its own frames, 'b.txt'\n");
  EXPECT_EQ(plot("--labels labels.csv -o labels.csv").err,
            "ERROR: the result would replace its own labels, 'labels.csv'\n");
}

// --- Colours ---

// What a terminal shows of the sketch of a model in whose histogram the first bin is below zero.
std::string sketchOnTerminal(const std::string& environment, const std::string& options = "") {
  const TempFolder folder;
  folder.write("model.txt",
               "MultiLayerNNModel_v2\nsoftmax 0\nloss 2\n8 4\n"
               "num_layers 1\nlayer 1 size 1 4\nact_fn relu\n0 -3 0 3\n");
  return shownOnTerminal(environment + " mlnn plot model.txt --bins 3 " + options, 80,
                         folder.path());
}

TEST(PlotCommandTest, hasColoursOnATerminal) {
  EXPECT_EQ(sketchOnTerminal("LC_ALL=C TERM=xterm NO_COLOR="),
            "loss: 2 values, first 8, last 4\r\n"
            "         8 |\x1b[32m#\x1b[0m\r\n"
            "           |\x1b[32m#\x1b[0m\r\n"
            "           |\x1b[32m#\x1b[0m\r\n"
            "           |\x1b[32m#\x1b[0m\r\n"
            "           |\x1b[32m##\x1b[0m\r\n"
            "           |\x1b[32m##\x1b[0m\r\n"
            "           |\x1b[32m##\x1b[0m\r\n"
            "         0 |\x1b[32m##\x1b[0m\r\n"
            "            1 epoch 2\r\n"
            "\r\n"
            "weights of layer 1: 3 weights of plain layer, 3 to 1\r\n"
            "         1 |\x1b[36m#\x1b[33m##\x1b[0m\r\n"
            "           |\x1b[36m#\x1b[33m##\x1b[0m\r\n"
            "           |\x1b[36m#\x1b[33m##\x1b[0m\r\n"
            "           |\x1b[36m#\x1b[33m##\x1b[0m\r\n"
            "           |\x1b[36m#\x1b[33m##\x1b[0m\r\n"
            "           |\x1b[36m#\x1b[33m##\x1b[0m\r\n"
            "           |\x1b[36m#\x1b[33m##\x1b[0m\r\n"
            "         0 |\x1b[36m#\x1b[33m##\x1b[0m\r\n"
            "            -3 weight 3\r\n");
}

TEST(PlotCommandTest, hasNoColoursWhereTheyAreNotWanted) {
  const std::string coloured = sketchOnTerminal("LC_ALL=C TERM=xterm NO_COLOR=");
  const std::string plain = sketchOnTerminal("LC_ALL=C TERM=xterm NO_COLOR=1");
  EXPECT_NE(coloured, plain);
  EXPECT_EQ(plain.find('\x1b'), std::string::npos);
  EXPECT_EQ(sketchOnTerminal("LC_ALL=C TERM=dumb NO_COLOR="), plain);
  EXPECT_EQ(sketchOnTerminal("LC_ALL=C TERM=xterm NO_COLOR=", "| cat"), plain);
  for (const char* format : {"--json", "-o -"}) {
    const std::string shown = sketchOnTerminal("LC_ALL=C TERM=xterm NO_COLOR=", format);
    EXPECT_EQ(shown.find('\x1b'), std::string::npos) << format;
  }
}

// What is right is green, what is wrong is yellow.
TEST_F(PlotRecordingsTest, colourPosteriorsAndConfusionByWhatIsRight) {
  const std::string plot = "LC_ALL=C TERM=xterm mlnn plot model.txt --frames a.txt b.txt ";
  const std::string shown =
      shownOnTerminal("NO_COLOR= " + plot + "--labels labels.csv", 80, folder_.path());
  EXPECT_EQ(shown.substr(shown.find("a.txt")),
            "a.txt: decided no, is no\r\n"
            "        no |\x1b[32m@@ @\x1b[0m\r\n"
            "       yes |  \x1b[33m@\x1b[0m\r\n"
            "            0 frame 4\r\n"
            "\r\n"
            "b.txt: decided yes, is no\r\n"
            "        no | \x1b[32m+\x1b[0m\r\n"
            "       yes |\x1b[33m@\x1b[0m+\r\n"
            "            0 frame 2\r\n"
            "\r\n"
            "confusion: 1 of 2 right\r\n"
            "     no  yes\r\n"
            " no   \x1b[32m1\x1b[0m    \x1b[33m1\x1b[0m\r\n"
            "yes   0    0\r\n");
  const std::string without = shownOnTerminal("NO_COLOR= " + plot, 80, folder_.path());
  EXPECT_NE(without.find("       yes |\x1b[32m@\x1b[0m+\r\n"), std::string::npos);  // as decided
}

TEST(PlotCommandTest, refusesWrongUsage) {
  EXPECT_EQ(runTool({"plot"}).status, 2);
  EXPECT_EQ(runTool({"plot", "x", "--bins", "0"}).status, 2);
  EXPECT_EQ(runTool({"plot", "x", "--width", "5"}).status, 2);
  EXPECT_EQ(runTool({"plot", "x", "--ascii", "--unicode"}).status, 2);
}

}  // namespace
