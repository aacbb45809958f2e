#include <gtest/gtest.h>

#include <cmath>
#include <sstream>
#include <string>

#include "tools/reports/SvgChart.h"

namespace {

using mlnn::Chart;

std::size_t countOf(const std::string& text, const std::string& part) {
  std::size_t count = 0;
  for (std::size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) {
    ++count;
  }
  return count;
}

Chart curve(std::vector<double> values) {
  Chart chart;
  chart.title = "loss";
  chart.xLabel = "epoch";
  chart.yLabel = "loss";
  chart.xLow = 1;
  chart.xHigh = static_cast<double>(values.size());
  chart.values = std::move(values);
  return chart;
}

std::string pictureOf(const std::vector<Chart>& charts, const std::string& heading = "model") {
  std::ostringstream out;
  mlnn::writeSvg(out, heading, charts);
  return out.str();
}

TEST(SvgChart, hasAPanelForEachChart) {
  const std::string one = pictureOf({curve({3, 2, 1})});
  const std::string two = pictureOf({curve({3, 2, 1}), curve({1, 2})});
  EXPECT_EQ(countOf(one, "<circle"), 3u);
  EXPECT_EQ(countOf(two, "<circle"), 5u);
  EXPECT_EQ(countOf(two, "<path"), 2u);
  EXPECT_EQ(two.substr(two.size() - 7), "</svg>\n");
}

TEST(SvgChart, marksTheNumbersBelowThePlot) {
  const std::string picture = pictureOf({curve({3, 2, 1})});
  EXPECT_EQ(countOf(picture, "class=\"axis\""), 2u + 3u);  // and both axes
  EXPECT_EQ(countOf(picture, R"(x1="256.0" y1="232.0" x2="256.0" y2="236.0")"), 1u);
  EXPECT_EQ(countOf(picture, R"(<text x="256.0" y="250.0" text-anchor="middle" class="remark">2)"),
            1u);
}

TEST(SvgChart, drawsNothingWhereThereIsNoNumber) {
  const std::string gap = pictureOf({curve({3, std::nan(""), 1})});
  EXPECT_EQ(countOf(gap, "<circle"), 2u);
  EXPECT_EQ(gap.find("nan"), std::string::npos);
  EXPECT_EQ(countOf(pictureOf({curve({std::nan("")})}), "<circle"), 0u);
}

TEST(SvgChart, drawsNumbersOfAnySize) {
  for (const std::vector<double>& values :
       {std::vector<double>{3.4e38, -3.4e38}, {1.4e-45, 0}, {7, 7, 7}, {0}}) {
    const std::string picture = pictureOf({curve(values)});
    EXPECT_EQ(picture.find("inf"), std::string::npos) << picture;
    EXPECT_EQ(picture.find("nan"), std::string::npos) << picture;
    EXPECT_EQ(countOf(picture, "<circle"), values.size());
  }
}

TEST(SvgChart, hasAColumnForEachBin) {
  Chart chart = curve({4, 0, 3});
  chart.kind = Chart::Kind::kHistogram;
  const std::string picture = pictureOf({chart});
  EXPECT_EQ(countOf(picture, "<rect class=\"bar\""), 3u);
  EXPECT_EQ(countOf(picture, R"(y="232.0" width="122.2" height="0.0")"), 1u);  // of nothing
  EXPECT_EQ(countOf(picture, R"(height="-)"), 0u);
  for (std::size_t at = picture.find("class=\"bar\""); at != std::string::npos;
       at = picture.find("class=\"bar\"", at + 1)) {
    const double y = std::stod(picture.substr(picture.find(" y=\"", at) + 4));
    const double height = std::stod(picture.substr(picture.find("height=\"", at) + 8));
    EXPECT_NEAR(y + height, 232, 0.1);  // where the axis is
  }
}

// Posteriors are as deep as they are large, numbers of a table as they are beside the largest.
TEST(SvgChart, hasDeeperCellsForLargerValues) {
  Chart chart = curve({0.25, 1, 0.004, 0.5});
  chart.kind = Chart::Kind::kMap;
  chart.rowNames = {"no", "yes"};
  chart.columns = 2;
  const std::string posteriors = pictureOf({chart});
  EXPECT_EQ(countOf(posteriors, "<rect class=\"bar\""), 3u);
  for (const char* depth : {"\"0.25\"", "\"1.00\"", "\"0.50\""}) {
    EXPECT_EQ(countOf(posteriors, std::string("fill-opacity=") + depth), 1u) << depth;
  }
  chart.values = {0, 4, 1, 2};
  chart.columnNames = chart.rowNames;
  const std::string table = pictureOf({chart});
  EXPECT_EQ(countOf(table, "<rect class=\"bar\""), 3u);
  for (const char* depth : {"\"0.45\"", "\"0.11\"", "\"0.23\""}) {
    EXPECT_EQ(countOf(table, std::string("fill-opacity=") + depth), 1u) << depth;
  }
}

TEST(SvgChart, escapesTexts) {
  Chart chart = curve({1});
  chart.title = "<script>&\"";
  std::ostringstream panel;
  mlnn::writeSvgPanel(panel, chart);
  for (const std::string& text : {pictureOf({chart}, "<b>"), panel.str()}) {
    EXPECT_EQ(text.find("<script>"), std::string::npos);
    EXPECT_EQ(text.find("<b>"), std::string::npos);
    EXPECT_NE(text.find("&lt;script&gt;&amp;"), std::string::npos) << text;
  }
}

}  // namespace
