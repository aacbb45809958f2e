#include <gtest/gtest.h>

#include <cmath>
#include <sstream>
#include <string>

#include "tools/reports/TerminalChart.h"

namespace {

using mlnn::CharacterSet;
using mlnn::Chart;

std::string sketchOf(const Chart& chart, std::size_t width = 40,
                     CharacterSet set = CharacterSet::kAscii) {
  std::ostringstream out;
  mlnn::printChart(out, chart, {width, set, false});
  return out.str();
}

Chart curve(std::vector<double> values) {
  Chart chart;
  chart.title = "loss";
  chart.remark = "figures";
  chart.xLabel = "epoch";
  chart.xLow = 1;
  chart.xHigh = static_cast<double>(values.size());
  chart.values = std::move(values);
  return chart;
}

TEST(TerminalChart, drawsColumnsFromZero) {
  EXPECT_EQ(sketchOf(curve({8, 4, std::nan(""), 1})),
            "loss: figures\n"
            "         8 |#\n"
            "           |#\n"
            "           |#\n"
            "           |#\n"
            "           |##\n"
            "           |##\n"
            "           |##\n"
            "         0 |## #\n"
            "            1 epoch 4\n");
}

TEST(TerminalChart, hasEighthsOfALineAmongBlocks) {
  const std::string sketch = sketchOf(curve({8, 4.5}), 40, CharacterSet::kUnicode);
  EXPECT_NE(sketch.find("|█▄\n"), std::string::npos) << sketch;
}

TEST(TerminalChart, keepsToItsWidth) {
  std::vector<double> values(1000, 1);
  values[999] = 2;
  for (const std::size_t width : {mlnn::kMinChartWidth, std::size_t{33}, std::size_t{80}}) {
    std::istringstream lines(sketchOf(curve(values), width));
    for (std::string line; std::getline(lines, line);) EXPECT_LE(line.size(), width) << line;
  }
}

TEST(TerminalChart, drawsWhatHasNoHeight) {
  for (const std::vector<double>& values :
       {std::vector<double>{0, 0}, {std::nan("")}, {}, {1e300, -1e300}, {-1, -2}}) {
    const std::string sketch = sketchOf(curve(values));
    EXPECT_EQ(sketch.find("nan"), std::string::npos) << sketch;
    EXPECT_EQ(sketch.find("inf"), std::string::npos) << sketch;
  }
}

TEST(TerminalChart, hasTheSameCharactersInColours) {
  const Chart chart = curve({8, 4, 1});
  std::ostringstream out;
  mlnn::printChart(out, chart, {40, CharacterSet::kAscii, true});
  std::string text = out.str();
  EXPECT_NE(text, sketchOf(chart));
  for (std::size_t at; (at = text.find('\x1b')) != std::string::npos;) {
    text.erase(at, text.find('m', at) + 1 - at);
  }
  EXPECT_EQ(text, sketchOf(chart));
}

Chart mapOf(std::vector<double> values) {
  Chart chart = curve(std::move(values));
  chart.kind = Chart::Kind::kMap;
  chart.rowNames = {"no", "nearly \u00E9\u00E9", "yes"};
  chart.columns = chart.values.size() / 3;
  chart.xHigh = static_cast<double>(chart.columns);
  return chart;
}

// With inks as letters.
std::string inkedSketchOf(const Chart& chart) {
  std::ostringstream out;
  mlnn::printChart(out, chart, {40, CharacterSet::kAscii, true});
  std::string text = out.str();
  for (std::size_t at; (at = text.find('\x1b')) != std::string::npos;) {
    const std::size_t end = text.find('m', at);
    text.replace(at, end + 1 - at, "{" + text.substr(at + 2, end - at - 2) + "}");
  }
  return text;
}

TEST(TerminalChart, drawsARowForEachName) {
  const Chart chart = mapOf({0.1, 0.2, 1, 0.4, 0.8, 0.25, 0.5, 0.0, std::nan("")});
  EXPECT_EQ(sketchOf(chart),
            "loss: figures\n"
            "        no | .@\n"
            " nearly é~ |+#.\n"
            "       yes |+\n"
            "            1 epoch 3\n");
  EXPECT_EQ(sketchOf(chart, 40, CharacterSet::kUnicode),
            "loss: figures\n"
            "        no | ░█\n"
            " nearly é~ |▒▓░\n"
            "       yes |▒\n"
            "            1 epoch 3\n");
}

TEST(TerminalChart, drawsTheMeanOfFramesThatShareAColumn) {
  std::vector<double> values(3 * 30, 0.25);
  values[0] = 1;
  values[30 + 29] = 2;
  EXPECT_EQ(sketchOf(mapOf(values), 27),
            "loss: figures\n"
            "        no |#..............\n"
            " nearly é~ |..............@\n"
            "       yes |...............\n"
            "            1   epoch    30\n");
}

TEST(TerminalChart, inksTheHighestRowsByWhetherTheyAreRight) {
  Chart chart = mapOf({0.5, 0.25, 0.5, 0.75, 0, 0});
  EXPECT_EQ(inkedSketchOf(chart),
            "loss: figures\n"
            "        no |+.\n"
            " nearly é~ |+#\n"
            "       yes |\n"
            "            1 epoch 2\n");
  chart.rightRows = {0, 0};
  EXPECT_EQ(inkedSketchOf(chart),
            "loss: figures\n"
            "        no |{32}+{0}.\n"
            " nearly é~ |+{33}#{0}\n"
            "       yes |\n"
            "            1 epoch 2\n");
}

TEST(TerminalChart, showsCountsAsATable) {
  Chart chart = mapOf({3, 1, 0, 0, 12, 7});
  chart.columnNames = {"left", "right"};
  chart.rightRows = {0, 1};
  EXPECT_EQ(sketchOf(chart),
            "loss: figures\n"
            "           left  right\n"
            "       no     3      1\n"
            "nearly é~     0      0\n"
            "      yes    12      7\n");
  EXPECT_EQ(inkedSketchOf(chart),
            "loss: figures\n"
            "           left  right\n"
            "       no     {32}3{0}      {33}1{0}\n"
            "nearly é~     0      0\n"
            "      yes    {33}12{0}      {33}7{0}\n");
}

}  // namespace
