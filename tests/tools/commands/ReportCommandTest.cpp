#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <nlohmann/json.hpp>
#include <set>
#include <string>
#include <vector>

#include "tests/support/TempFolder.h"
#include "tests/support/TestModels.h"
#include "tests/tools/support/CommandFixture.h"
#include "tests/tools/support/ToolProcess.h"
#include "tests/tools/support/Xml.h"
#include "tools/page/PageParts.h"

namespace {

using mlnn::test::contentOf;
using mlnn::test::normalisationLine;
using mlnn::test::parseXml;
using mlnn::test::runShell;
using mlnn::test::ToolResult;
using mlnn::test::XmlElement;

const std::string kDigits = "examples/digits/";

// A model whose frames are its input vectors, with notes and properties between these.
std::string modelWith(const std::string& lines) {
  return "MultiLayerNNModel_v2\nsoftmax 1\n"
         "# nn_tune feat_desc mel_deltas:bands=2,left=0,right=0,deltas=0,line_kernels=0,"
         "line_kernel_width=0\n" +
         lines +
         "loss 3\n3\t2\t1\nnum_layers 1\n"
         "layer 1 size 2 3\nact_fn linear\n0\t1\t-1\n0\t-1\t2\n";
}

class ReportCommandTest : public mlnn::test::CommandFixture {
 protected:
  ReportCommandTest() : CommandFixture("report") {}

  // Runs the command from the root of the source tree.
  static ToolResult runFromRoot(const std::vector<std::string>& arguments) {
    std::vector<std::string> line = {"report"};
    line.insert(line.end(), arguments.begin(), arguments.end());
    return mlnn::test::runTool(line);
  }

  static std::vector<std::string> withDigits(const std::vector<std::string>& more) {
    std::vector<std::string> arguments = {kDigits + "synth-bn.txt", "--frames"};
    for (const char* digit : {"1", "8"}) {
      for (const char* voice : {"_en-gb-x-gbclan_michael", "_en-us_f4", "_en-gb_m4"}) {
        arguments.push_back(kDigits + "frames/" + digit + voice + ".npy");
      }
    }
    arguments.insert(arguments.end(), more.begin(), more.end());
    return arguments;
  }

  XmlElement pageOf(const std::string& model) const {
    const ToolResult result = run({"-"}, model);
    EXPECT_EQ(result.status, 0) << result.err;
    return parseXml(result.out);
  }
};

// Nothing in a page runs, fetches or leads anywhere.
void expectHarmless(const XmlElement& page) {
  const std::set<std::string> known = {
      "a",    "body",   "caption", "code",  "div",  "figcaption", "figure", "footer",
      "g",    "h1",     "h2",      "h3",    "head", "header",     "html",   "image",
      "li",   "line",   "main",    "meta",  "nav",  "p",          "path",   "polygon",
      "rect", "circle", "section", "style", "svg",  "table",      "tbody",  "td",
      "text", "th",     "thead",   "title", "tr",   "ul"};
  page.forEach([&](const XmlElement& element) {
    EXPECT_TRUE(known.count(element.name) == 1) << element.name;
    for (const auto& [name, value] : element.attributes) {
      EXPECT_NE(name.substr(0, 2), "on") << name;
      EXPECT_NE(name, "style");
      EXPECT_NE(name, "src");
      if (name != "href") continue;
      const bool isWithin = value[0] == '#' || value.rfind("data:image/png;base64,", 0) == 0;
      EXPECT_TRUE(isWithin) << value;
    }
  });
  EXPECT_EQ(page.all("style").size(), 1u);
  const XmlElement& head = page.children.front();
  EXPECT_EQ(head.children[1].attributes.at("http-equiv"), "Content-Security-Policy");
}

bool hasText(const XmlElement& page, const std::string& name, const std::string& text) {
  const auto found = page.all(name);
  return std::any_of(found.begin(), found.end(), [&text](const XmlElement* element) {
    return element->text.find(text) != std::string::npos;
  });
}

std::vector<std::string> headings(const XmlElement& page, const std::string& name) {
  std::vector<std::string> texts;
  for (const XmlElement* heading : page.all(name)) texts.push_back(heading->text);
  return texts;
}

TEST_F(ReportCommandTest, tellsOfAModelAlone) {
  const XmlElement page = pageOf(modelWith("# a note\n# NVP labels no,yes\n"));
  expectHarmless(page);
  EXPECT_EQ(headings(page, "h1"), std::vector<std::string>{"-"});
  EXPECT_EQ(headings(page, "h2"),
            (std::vector<std::string>{"About", "Network", "Suspicions", "Training", "Layers",
                                      "Quantisation", "Size and work", "Properties", "Notes"}));
  EXPECT_TRUE(hasText(page, "text", "layer 1: 2 to 2, linear"));
  EXPECT_TRUE(hasText(page, "text", "no, yes"));
  EXPECT_TRUE(hasText(page, "li", "there is no normalisation: frames go in as they are"));
  EXPECT_TRUE(hasText(page, "td", "a note"));
  EXPECT_TRUE(hasText(page, "figcaption", "Each weight is a cell."));
  EXPECT_EQ(page.all("svg").size(), 5u);  // network, loss, weights, their scale, histogram
  EXPECT_EQ(page.all("image").size(), 2u);
}

TEST_F(ReportCommandTest, drawsTheNetworkAroundItsMiddle) {
  const XmlElement page = pageOf(modelWith(""));
  const XmlElement& picture = *page.all("svg").front();
  const auto boxes = picture.all("rect");
  ASSERT_GE(boxes.size(), 2u);
  for (const XmlElement* box : boxes) {
    const double x = std::stod(box->attributes.at("x"));
    const double width = std::stod(box->attributes.at("width"));
    EXPECT_NEAR(x + width / 2, 150, 1) << x << " " << width;
  }
}

// The attribute of that name, and a blank behind it; nothing where there is none.
std::string attribute(const XmlElement& element, const std::string& name) {
  const auto found = element.attributes.find(name);
  return found == element.attributes.end() ? "" : found->second + " ";
}

TEST_F(ReportCommandTest, drawsTheNetworkFromTopToBottom) {
  const XmlElement page = pageOf(
      "MultiLayerNNModel_v2\nsoftmax 1\n"
      "# nn_tune feat_desc mel_deltas:bands=2,left=2,right=1,deltas=0,line_kernels=0,"
      "line_kernel_width=0\n"
      "num_layers 2\nlayer 1 size 1 9\nact_fn relu\n0 1 2 3 4 5 6 7 8\n"
      "layer 2 size 2 2\nact_fn linear\n0 1\n1 0\n");
  std::string drawn;
  page.all("svg").front()->forEach([&drawn](const XmlElement& element) {
    drawn += element.name + " ";
    for (const char* name : {"height", "width", "x", "y", "points", "d"}) {
      drawn += attribute(element, name);
    }
    drawn += (element.name == "text" ? element.text : "") + "\n";
  });
  EXPECT_EQ(drawn,
            "svg 456.0 720.0 \n"
            "rect 20.0 139.3 80.4 16.0 \n"
            "text 320.0 22.0 frame of 2 values\n"
            "text 320.0 39.0 2 mel bands\n"
            "path M150.0,51.0 L150.0,65.0 M146.0,60.0 L150.0,65.0 L154.0,60.0 \n"
            "rect 20.0 139.3 80.4 80.0 \n"
            "text 320.0 86.0 normalisation\n"
            "text 320.0 103.0 none: frames go in as they are\n"
            "path M150.0,115.0 L150.0,129.0 M146.0,124.0 L150.0,129.0 L154.0,124.0 \n"
            "rect 28.0 16.0 115.0 140.0 \n"
            "rect 28.0 16.0 133.0 140.0 \n"
            "rect 44.0 16.0 151.0 132.0 \n"
            "rect 28.0 16.0 169.0 140.0 \n"
            "text 320.0 150.0 context window\n"
            "text 320.0 167.0 2 before, the frame itself, 1 after\n"
            "path M150.0,179.0 L150.0,193.0 M146.0,188.0 L150.0,193.0 L154.0,188.0 \n"
            "polygon 20.7,196.0 279.3,196.0 197.6,240.0 102.4,240.0 \n"
            "text 320.0 214.0 layer 1: 8 to 1, relu\n"
            "text 320.0 231.0 plain, 8 weights\n"
            "path M150.0,243.0 L150.0,257.0 M146.0,252.0 L150.0,257.0 L154.0,252.0 \n"
            "polygon 102.4,260.0 197.6,260.0 219.6,304.0 80.4,304.0 \n"
            "text 320.0 278.0 layer 2: 1 to 2, linear\n"
            "text 320.0 295.0 plain, 2 weights\n"
            "path M150.0,307.0 L150.0,321.0 M146.0,316.0 L150.0,321.0 L154.0,316.0 \n"
            "rect 20.0 139.3 80.4 336.0 \n"
            "text 320.0 342.0 softmax\n"
            "text 320.0 359.0 over the outputs, which become posteriors\n"
            "path M150.0,371.0 L150.0,385.0 M146.0,380.0 L150.0,385.0 L154.0,380.0 \n"
            "rect 20.0 139.3 80.4 400.0 \n"
            "text 320.0 406.0 2 outputs\n"
            "text 320.0 423.0 0, 1\n");
}

TEST_F(ReportCommandTest, namesItsPartsAndAlignsNumbersInTables) {
  const ToolResult result = runFromRoot(
      withDigits({"--labels", kDigits + "labels.csv", "--against", kDigits + "synth.txt"}));
  ASSERT_EQ(result.status, 0) << result.err;
  const XmlElement page = parseXml(result.out);
  EXPECT_EQ(
      headings(page, "h3"),
      (std::vector<std::string>{"Confusion", "The least sure", "The slowest", "All recordings",
                                "Posteriors over time", "What the models say", "Their numbers",
                                "Their behaviour", "Layer 1", "Layer 2", "Layer 3"}));
  std::string columns;
  for (const XmlElement* table : page.all("table")) {
    if (table->all("thead").empty()) continue;
    columns += table->all("caption").front()->text + ":";
    for (const XmlElement* name : table->all("thead").front()->all("th")) {
      columns += " " + attribute(*name, "class") + name->text + ",";
    }
    columns += "\n";
  }
  EXPECT_EQ(
      columns,
      "Rows: what recordings are. Columns: what they were taken for.:"
      " is / taken for, 1, 2, 8,\n"
      "Wrong ones first, then those of the smallest margin:"
      " text Recording, number Frames, text Is, text Decided, text Judgement, number Mean "
      "posterior, text Next, number Margin, number Settled at frame,\n"
      "Those first whose decision settled last:"
      " text Recording, number Frames, text Is, text Decided, text Judgement, number Mean "
      "posterior, text Next, number Margin, number Settled at frame,\n"
      "In the order in which they were given:"
      " text Recording, number Frames, text Is, text Decided, text Judgement, number Mean "
      "posterior, text Next, number Margin, number Settled at frame,\n"
      "Side by side:"
      " text What, text This model, text The other,\n"
      "23 differences:"
      " text What, text This model, text The other,\n"
      "Parameters, value by value:"
      " number Layer, text Array, number Values, number Differ, number Largest, number RMS, number "
      "ULP, number Cosine,\n"
      "Differences at each stage of the computation:"
      " text Stage, number Values, number Largest, number RMS, number ULP, number Cosine,\n"
      "Shapes:"
      " number Layer, text Kind, number Inputs, number Outputs, text Activation, number "
      "Parameters, text Weights in an image, number Bytes there,\n"
      "Values of the arrays that each layer uses:"
      " number Layer, text Array, number Values, number Smallest, number Largest, number Mean, "
      "number Deviation, number Norm, number Zeros, number Not finite,\n"
      "Lengths of the rows of weights, one row for each unit:"
      " number Layer, number Units, number Shortest, number Median, number Longest, number Rows "
      "without weights,\n"
      "Units over 260 frames:"
      " number Layer, number Units, number Smallest, number Largest, text Dead, text Saturated,\n"
      "Relative error of weights that are rounded by rows:"
      " number Layer, number 8 bits, number 6 bits, number 4 bits,\n"
      "Decisions with weights that are rounded by rows:"
      " number Bits, text Arithmetic, number Same class, number Right,\n"
      "The lines of its history, oldest first:"
      " number Line, text Note,\n");
}

TEST_F(ReportCommandTest, drawsWhatNormalisationDoes) {
  const auto words = [this](const std::string& lines) {
    const XmlElement page = pageOf(modelWith(lines));
    for (const char* said : {"none: frames go in as they are", "changes nothing",
                             "(x - minvals) * normvals, value by value"}) {
      if (hasText(page, "text", said)) return std::string(said);
    }
    return std::string();
  };
  EXPECT_EQ(words(""), "none: frames go in as they are");
  EXPECT_EQ(words(normalisationLine("minvals", "0", "0")), "changes nothing");
  EXPECT_EQ(words(normalisationLine("normvals", "2", "1")),
            "(x - minvals) * normvals, value by value");
  EXPECT_EQ(words(normalisationLine("minvals", "1", "0")),
            "(x - minvals) * normvals, value by value");
}

TEST_F(ReportCommandTest, namesTenRecordingsAndListsAll) {
  std::vector<std::string> arguments = {kDigits + "synth.txt", "--frames"};
  for (const char* digit : {"0", "1", "2", "3"}) {
    for (const char* voice : {"_en-gb-x-gbclan_michael", "_en-us_f4", "_en-gb_m4"}) {
      arguments.push_back(kDigits + "frames/" + digit + voice + ".npy");
    }
  }
  const ToolResult result = runFromRoot(arguments);
  ASSERT_EQ(result.status, 0) << result.err;
  const XmlElement page = parseXml(result.out);
  std::map<std::string, std::size_t> rows;
  for (const XmlElement* table : page.all("table")) {
    rows[table->all("caption").front()->text] = table->all("tr").size() - 1;  // without the head
  }
  EXPECT_EQ(rows["Wrong ones first, then those of the smallest margin"], 10u);
  EXPECT_EQ(rows["Those first whose decision settled last"], 10u);
  EXPECT_EQ(rows["In the order in which they were given"], 12u);
}

// Whoever cannot see finds headings in their order, names of pictures and headings of tables.
TEST_F(ReportCommandTest, canBeReadAloud) {
  const ToolResult result = runFromRoot(withDigits({"--labels", kDigits + "labels.csv"}));
  ASSERT_EQ(result.status, 0) << result.err;
  const XmlElement page = parseXml(result.out);
  EXPECT_EQ(page.attributes.at("lang"), "en");
  std::set<std::string> ids;
  int level = 0;
  page.forEach([&](const XmlElement& element) {
    if (element.attributes.count("id") == 1) {
      EXPECT_TRUE(ids.insert(element.attributes.at("id")).second);
    }
    if (element.name == "svg") {
      EXPECT_EQ(element.attributes.at("role"), "img");
      EXPECT_NE(element.attributes.at("aria-label"), "");
    }
    if (element.name == "th") {
      EXPECT_EQ(element.attributes.count("scope"), 1u);
    }
    if (element.name == "table") {
      EXPECT_EQ(element.children.front().name, "caption");
    }
    if (element.name.size() != 2 || element.name[0] != 'h' || element.name == "hr") return;
    const int next = element.name[1] - '0';
    EXPECT_LE(next, level + 1) << element.text;
    level = next;
  });
  for (const XmlElement* link : page.all("a")) {
    EXPECT_EQ(ids.count(link->attributes.at("href").substr(1)), 1u);
  }
}

TEST_F(ReportCommandTest, showsWhatBecomesOfRecordings) {
  const ToolResult result = runFromRoot(withDigits({"--labels", kDigits + "labels.csv"}));
  ASSERT_EQ(result.status, 0) << result.err;
  const XmlElement page = parseXml(result.out);
  expectHarmless(page);
  EXPECT_TRUE(hasText(page, "td", "83.3 %: 5 of 6 recordings right"));
  EXPECT_TRUE(
      hasText(page, "figcaption", "8_en-gb-x-gbclan_michael.npy: decided 2, is 8 - wrong."));
  EXPECT_TRUE(hasText(page, "caption", "Units over "));
  const auto tables = page.all("table");
  const auto matrix = std::find_if(tables.begin(), tables.end(), [](const XmlElement* table) {
    return table->attributes.at("class") == "confusion";
  });
  ASSERT_NE(matrix, tables.end());
  const auto rows = (*matrix)->all("tr");
  ASSERT_EQ(rows.size(), 4u);
  EXPECT_EQ(rows[0]->text, "is / taken for\n1\n2\n8\n");
  EXPECT_EQ(rows[1]->text, "1\n3\n\u00B7\n\u00B7\n");
  EXPECT_EQ(rows[3]->text, "8\n\u00B7\n1\n2\n");
}

// A row of the table of decisions, made of what the sweep says in JSON.
std::string rowOf(const nlohmann::json& width, const std::string& arithmetic, std::size_t frames) {
  const nlohmann::json& kept = width.at(arithmetic);
  return std::to_string(width.at("bits").get<int>()) + "\n" + arithmetic + "\n" +
         mlnn::shareText(kept.at("same_best_class"), frames) + "\n" +
         std::to_string(kept.at("right_recordings").get<int>()) + " of 6\n";
}

TEST_F(ReportCommandTest, showsWhatASweepFinds) {
  const std::vector<std::string> line = withDigits({"--labels", kDigits + "labels.csv"});
  const ToolResult result = runFromRoot(line);
  ASSERT_EQ(result.status, 0) << result.err;
  std::vector<std::string> sweep = {"quantize", line[0], "--sweep", "4..8", "--json", "--prove"};
  sweep.insert(sweep.end(), line.begin() + 2, line.end());
  const auto found = nlohmann::json::parse(mlnn::test::runTool(sweep).out);
  const XmlElement page = parseXml(result.out);
  const auto tables = page.all("table");
  const auto kept = std::find_if(tables.begin(), tables.end(), [](const XmlElement* table) {
    return table->children.front().text == "Decisions with weights that are rounded by rows";
  });
  ASSERT_NE(kept, tables.end());
  std::vector<std::string> rows;
  for (const XmlElement* row : (*kept)->all("tr")) rows.push_back(row->text);
  std::vector<std::string> expected = {"Bits\nArithmetic\nSame class\nRight\n",
                                       "32\nas it is\n100.0 %\n5 of 6\n"};
  for (const std::size_t width : {4u, 2u, 0u}) {
    for (const char* arithmetic : {"floats", "integers"}) {
      expected.push_back(rowOf(found["widths"][width], arithmetic, found["frames"]));
    }
  }
  EXPECT_EQ(rows, expected);
}

TEST_F(ReportCommandTest, leavesOutDecisionsOfASingleOutput) {
  ASSERT_EQ(runShell("mlnn new 2,1 one.mlnn", folder_.path()).status, 0);
  folder_.write("frames.txt", "1 2\n3 4\n");
  const ToolResult result = run({"one.mlnn", "--frames", "frames.txt", "--stacked"});
  ASSERT_EQ(result.status, 0) << result.err;
  EXPECT_EQ(result.out.find("Decisions with weights"), std::string::npos);
}

TEST_F(ReportCommandTest, showsOutputsOfAModelWithoutSoftmax) {
  std::string model = modelWith("");
  model.replace(model.find("softmax 1"), 9, "softmax 0");
  folder_.write("frames.txt", "1 2\n3 4\n");
  const ToolResult result = run({"-", "--frames", "frames.txt"}, model);
  ASSERT_EQ(result.status, 0) << result.err;
  const XmlElement page = parseXml(result.out);
  EXPECT_TRUE(hasText(page, "h3", "Outputs over time"));
  EXPECT_FALSE(hasText(page, "h3", "The least sure"));
}

TEST_F(ReportCommandTest, comparesWithAnotherModel) {
  const ToolResult result = runFromRoot(
      withDigits({"--labels", kDigits + "labels.csv", "--against", kDigits + "synth.txt"}));
  ASSERT_EQ(result.status, 0) << result.err;
  const XmlElement page = parseXml(result.out);
  expectHarmless(page);
  EXPECT_TRUE(hasText(page, "h2", "Differences"));
  EXPECT_TRUE(hasText(page, "td", "600 inputs, 64 outputs, plain, sigmoid"));
  EXPECT_TRUE(hasText(page, "th", "layer-1-affine"));
  EXPECT_TRUE(hasText(page, "th", "Accuracy"));
}

TEST_F(ReportCommandTest, findsNoDifferenceToItself) {
  folder_.write("model.txt", modelWith(""));
  const ToolResult result = run({"model.txt", "--against", "model.txt"});
  ASSERT_EQ(result.status, 0) << result.err;
  const XmlElement page = parseXml(result.out);
  EXPECT_TRUE(hasText(page, "p", "The same."));
  EXPECT_TRUE(hasText(page, "p", "The same, to the bit."));
}

TEST_F(ReportCommandTest, runsNothingOfAHostileFile) {
  const std::string evil =
      "</td></title></style><script>alert(1)</script><img src=x "
      "onerror=alert(1)>\"'&lt;javascript:\xff\x1b[2J\u202E\xEF\xBF\xBF";
  const std::string model = modelWith("# " + evil + "\n# NVP " + evil + "x " + evil +
                                      "\n# NVP labels " + evil + ",<svg/onload=alert(2)>\n");
  folder_.write("<script>.txt", model);
  folder_.write("\"><b onclick=x>.txt", "1 2\n3 4\n");
  folder_.write("labels.csv", "file,label\n\"\"\"><b onclick=x>.txt\",<svg/onload=alert(2)>\n");
  folder_.write("other.txt", modelWith("# other\n# NVP <i>key</i> </table>\n"));
  const ToolResult result = run({"<script>.txt", "--frames", "\"><b onclick=x>.txt", "--labels",
                                 "labels.csv", "--against", "other.txt"});
  ASSERT_EQ(result.status, 0) << result.err;
  const XmlElement page = parseXml(result.out);
  expectHarmless(page);
  EXPECT_TRUE(hasText(page, "title", "<script>.txt"));
  EXPECT_TRUE(hasText(page, "td", "</td></title></style><script>alert(1)</script>"));
  EXPECT_TRUE(hasText(page, "th", "<svg/onload=alert(2)>"));
  EXPECT_TRUE(hasText(page, "text", "<svg/onload=alert(2)>"));
  EXPECT_EQ(result.out.find("<script"), std::string::npos);
  EXPECT_EQ(result.out.find('\x1b'), std::string::npos);
}

TEST_F(ReportCommandTest, saysWhatItLeavesOutOfLargeLayers) {
  ASSERT_EQ(runShell("mlnn new 1300,500 large.mlnn", folder_.path()).status, 0);
  const ToolResult result = run({"large.mlnn"});
  ASSERT_EQ(result.status, 0) << result.err;
  EXPECT_TRUE(hasText(parseXml(result.out), "figcaption",
                      "Each cell stands for 2 rows and 3 columns of weights and shows the one of "
                      "the largest magnitude among them."));
}

TEST_F(ReportCommandTest, staysSmallForManyLayers) {
  std::string sizes = "40";
  for (int i = 0; i < 600; ++i) sizes += ",40";
  ASSERT_EQ(runShell("mlnn new " + sizes + " deep.mlnn", folder_.path()).status, 0);
  const ToolResult result = run({"deep.mlnn"});
  ASSERT_EQ(result.status, 0) << result.err;
  const XmlElement page = parseXml(result.out);
  EXPECT_LT(result.out.size(), 2000000u);
  EXPECT_TRUE(hasText(page, "text", "and 576 layers more"));
  for (const char* drawn : {"layer 12:", "layer 589:", "layer 600:"}) {
    EXPECT_TRUE(hasText(page, "text", drawn)) << drawn;
  }
  for (const char* leftOut : {"layer 13:", "layer 588:"}) {
    EXPECT_FALSE(hasText(page, "text", leftOut)) << leftOut;
  }
  EXPECT_TRUE(hasText(page, "p", "The first 500 of 600 layers stand in the tables."));
  EXPECT_TRUE(hasText(page, "p", "The first 24 of 600 layers are drawn."));
}

TEST_F(ReportCommandTest, tellsOfAModelWithoutLayers) {
  const XmlElement page = pageOf("MultiLayerNNModel_v2\nsoftmax 1\nnum_layers 0\n");
  EXPECT_TRUE(hasText(page, "p", "The model has no layers."));
  EXPECT_TRUE(hasText(page, "p", "The model has no curves of its training."));
}

TEST_F(ReportCommandTest, writesTheSamePageAgain) {
  const std::vector<std::string> line = withDigits({"--labels", kDigits + "labels.csv"});
  EXPECT_EQ(runFromRoot(line).out, runFromRoot(line).out);
}

TEST_F(ReportCommandTest, leavesWhatWasThereWhenItFails) {
  folder_.write("page.html", "before");
  folder_.write("model.txt", modelWith(""));
  folder_.write("frames.txt", "1 2 3\n");
  EXPECT_EQ(run({"model.txt", "-o", "page.html", "--frames", "frames.txt"}).status, 1);
  EXPECT_EQ(contentOf(folder_.path("page.html")), "before");
}

TEST_F(ReportCommandTest, doesNotReplaceWhatItReads) {
  folder_.write("model.txt", modelWith(""));
  folder_.write("other.txt", modelWith(""));
  folder_.write("frames.txt", "1 2\n");
  folder_.write("labels.csv", "file,label\nframes.txt,0\n");
  const std::vector<std::string> line = {"model.txt",  "--frames",  "frames.txt", "--labels",
                                         "labels.csv", "--against", "other.txt",  "-o"};
  for (const auto& [name, kind] :
       std::vector<std::pair<std::string, std::string>>{{"model.txt", "model"},
                                                        {"other.txt", "model"},
                                                        {"frames.txt", "frames"},
                                                        {"labels.csv", "labels"}}) {
    std::vector<std::string> arguments = line;
    arguments.push_back(name);
    expectRefused(arguments, 2,
                  "ERROR: the result would replace its own " + kind + ", '" + name + "'\n");
  }
}

TEST_F(ReportCommandTest, refusesLabelsThatTheModelDoesNotKnow) {
  folder_.write("model.txt", modelWith(""));
  folder_.write("frames.txt", "1 2\n");
  folder_.write("labels.csv", "file,label\nframes.txt,seven\n");
  expectRefused(
      {"model.txt", "-o", "page.html", "--frames", "frames.txt", "--labels", "labels.csv"}, 1,
      "ERROR: the label 'seven' of 'frames.txt' is no class of the model\n");
}

TEST_F(ReportCommandTest, refusesWrongUsage) {
  EXPECT_EQ(run({}).status, 2);
  EXPECT_EQ(run({"model.txt", "--labels", "labels.csv"}).status, 2);
  EXPECT_EQ(run({"model.txt", "--stacked"}).status, 2);
  EXPECT_EQ(run({"-", "--against", "-"}).status, 2);
}

}  // namespace
