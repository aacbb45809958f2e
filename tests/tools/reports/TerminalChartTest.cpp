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

TEST(TerminalChart, showsCountsAsATable) {
  Chart chart;
  chart.kind = Chart::Kind::kMap;
  chart.title = "confusion";
  chart.rowNames = {"left", "right"};
  chart.columnNames = {"left", "right"};
  chart.columns = 2;
  chart.values = {3, 1, 0, 12};
  const std::string sketch = sketchOf(chart);
  for (const char* part : {"confusion", "left", "right", "3", "12"}) {
    EXPECT_NE(sketch.find(part), std::string::npos) << sketch;
  }
}

}  // namespace
