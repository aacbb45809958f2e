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

// What a picture of one chart is made of.
std::string panelOf(const Chart& chart) {
  std::ostringstream out;
  mlnn::writeSvgPanel(out, chart);
  return out.str();
}

Chart mapOf(std::vector<double> values) {
  Chart chart = curve(std::move(values));
  chart.kind = Chart::Kind::kMap;
  chart.rowNames = {"no", "yes \u00E9\u00E9"};
  chart.columns = 2;
  chart.xHigh = 2;
  return chart;
}

TEST(SvgChart, drawsACurve) {
  Chart chart = curve({3, std::nan(""), -1, 2});
  chart.remark = "4 epochs";
  EXPECT_EQ(
      panelOf(chart),
      R"svg(<svg xmlns="http://www.w3.org/2000/svg" class="chart" width="460.0" height="280.0" viewBox="0 0 460.0 280.0" role="img" aria-label="loss: 4 epochs">
    <text x="72.0" y="22.0" text-anchor="start" class="title">loss</text>
    <text x="72.0" y="40.0" text-anchor="start" class="remark">4 epochs</text>
    <line class="grid" x1="72.0" y1="232.0" x2="440.0" y2="232.0"/>
    <text x="64.0" y="236.0" text-anchor="end" class="remark">-1</text>
    <line class="grid" x1="72.0" y1="187.0" x2="440.0" y2="187.0"/>
    <text x="64.0" y="191.0" text-anchor="end" class="remark">0</text>
    <line class="grid" x1="72.0" y1="142.0" x2="440.0" y2="142.0"/>
    <text x="64.0" y="146.0" text-anchor="end" class="remark">1</text>
    <line class="grid" x1="72.0" y1="97.0" x2="440.0" y2="97.0"/>
    <text x="64.0" y="101.0" text-anchor="end" class="remark">2</text>
    <line class="grid" x1="72.0" y1="52.0" x2="440.0" y2="52.0"/>
    <text x="64.0" y="56.0" text-anchor="end" class="remark">3</text>
    <line class="axis" x1="72.0" y1="232.0" x2="72.0" y2="236.0"/>
    <text x="72.0" y="250.0" text-anchor="middle" class="remark">1</text>
    <line class="axis" x1="194.7" y1="232.0" x2="194.7" y2="236.0"/>
    <text x="194.7" y="250.0" text-anchor="middle" class="remark">2</text>
    <line class="axis" x1="317.3" y1="232.0" x2="317.3" y2="236.0"/>
    <text x="317.3" y="250.0" text-anchor="middle" class="remark">3</text>
    <line class="axis" x1="440.0" y1="232.0" x2="440.0" y2="236.0"/>
    <text x="440.0" y="250.0" text-anchor="middle" class="remark">4</text>
    <circle class="point" cx="72.0" cy="52.0" r="2.2"/>
    <circle class="point" cx="317.3" cy="232.0" r="2.2"/>
    <circle class="point" cx="440.0" cy="97.0" r="2.2"/>
    <path class="line" d="M72.0 52.0 M317.3 232.0 L440.0 97.0"/>
    <line class="axis" x1="72.0" y1="52.0" x2="72.0" y2="232.0"/>
    <line class="axis" x1="72.0" y1="232.0" x2="440.0" y2="232.0"/>
    <text x="256.0" y="268.0" text-anchor="middle" class="label">epoch</text>
    <text transform="translate(18 142.0) rotate(-90)" text-anchor="middle">loss</text>
</svg>
)svg");
}

TEST(SvgChart, drawsAHistogram) {
  Chart chart = curve({4, 0, 3});
  chart.kind = Chart::Kind::kHistogram;
  chart.xLow = -0.3;
  chart.xHigh = 0.6;
  EXPECT_EQ(
      panelOf(chart),
      R"svg(<svg xmlns="http://www.w3.org/2000/svg" class="chart" width="460.0" height="280.0" viewBox="0 0 460.0 280.0" role="img" aria-label="loss: ">
    <text x="72.0" y="22.0" text-anchor="start" class="title">loss</text>
    <text x="72.0" y="40.0" text-anchor="start" class="remark"></text>
    <line class="grid" x1="72.0" y1="232.0" x2="440.0" y2="232.0"/>
    <text x="64.0" y="236.0" text-anchor="end" class="remark">0</text>
    <line class="grid" x1="72.0" y1="187.0" x2="440.0" y2="187.0"/>
    <text x="64.0" y="191.0" text-anchor="end" class="remark">1</text>
    <line class="grid" x1="72.0" y1="142.0" x2="440.0" y2="142.0"/>
    <text x="64.0" y="146.0" text-anchor="end" class="remark">2</text>
    <line class="grid" x1="72.0" y1="97.0" x2="440.0" y2="97.0"/>
    <text x="64.0" y="101.0" text-anchor="end" class="remark">3</text>
    <line class="grid" x1="72.0" y1="52.0" x2="440.0" y2="52.0"/>
    <text x="64.0" y="56.0" text-anchor="end" class="remark">4</text>
    <line class="axis" x1="112.9" y1="232.0" x2="112.9" y2="236.0"/>
    <text x="112.9" y="250.0" text-anchor="middle" class="remark">-0.2</text>
    <line class="axis" x1="194.7" y1="232.0" x2="194.7" y2="236.0"/>
    <text x="194.7" y="250.0" text-anchor="middle" class="remark">0</text>
    <line class="axis" x1="276.4" y1="232.0" x2="276.4" y2="236.0"/>
    <text x="276.4" y="250.0" text-anchor="middle" class="remark">0.2</text>
    <line class="axis" x1="358.2" y1="232.0" x2="358.2" y2="236.0"/>
    <text x="358.2" y="250.0" text-anchor="middle" class="remark">0.4</text>
    <line class="axis" x1="440.0" y1="232.0" x2="440.0" y2="236.0"/>
    <text x="440.0" y="250.0" text-anchor="middle" class="remark">0.6</text>
    <rect class="bar" x="72.0" y="52.0" width="122.2" height="180.0"/>
    <rect class="bar" x="194.7" y="232.0" width="122.2" height="0.0"/>
    <rect class="bar" x="317.3" y="97.0" width="122.2" height="135.0"/>
    <line class="axis" x1="72.0" y1="52.0" x2="72.0" y2="232.0"/>
    <line class="axis" x1="72.0" y1="232.0" x2="440.0" y2="232.0"/>
    <text x="256.0" y="268.0" text-anchor="middle" class="label">epoch</text>
    <text transform="translate(18 142.0) rotate(-90)" text-anchor="middle">loss</text>
</svg>
)svg");
}

TEST(SvgChart, drawsAMap) {
  EXPECT_EQ(
      panelOf(mapOf({0.25, 1, 0.004, 0.5})),
      R"svg(<svg xmlns="http://www.w3.org/2000/svg" class="chart" width="460.0" height="280.0" viewBox="0 0 460.0 280.0" role="img" aria-label="loss: ">
    <text x="72.0" y="22.0" text-anchor="start" class="title">loss</text>
    <text x="72.0" y="40.0" text-anchor="start" class="remark"></text>
    <rect class="bar" fill-opacity="0.25" x="72.0" y="52.0" width="184.0" height="90.0"/>
    <rect class="bar" fill-opacity="1.00" x="256.0" y="52.0" width="184.0" height="90.0"/>
    <rect class="bar" fill-opacity="0.50" x="256.0" y="142.0" width="184.0" height="90.0"/>
    <text x="66.0" y="101.0" text-anchor="end" class="remark">no</text>
    <text x="66.0" y="191.0" text-anchor="end" class="remark">yes é~</text>
    <line class="axis" x1="72.0" y1="232.0" x2="72.0" y2="236.0"/>
    <text x="72.0" y="250.0" text-anchor="middle" class="remark">1</text>
    <line class="axis" x1="440.0" y1="232.0" x2="440.0" y2="236.0"/>
    <text x="440.0" y="250.0" text-anchor="middle" class="remark">2</text>
    <line class="axis" x1="72.0" y1="52.0" x2="72.0" y2="232.0"/>
    <line class="axis" x1="72.0" y1="232.0" x2="440.0" y2="232.0"/>
    <text x="256.0" y="268.0" text-anchor="middle" class="label">epoch</text>
    <text transform="translate(18 142.0) rotate(-90)" text-anchor="middle">loss</text>
</svg>
)svg");
}

TEST(SvgChart, drawsATable) {
  Chart chart = mapOf({0, 4, 1, 2});
  chart.columnNames = chart.rowNames;
  EXPECT_EQ(
      panelOf(chart),
      R"svg(<svg xmlns="http://www.w3.org/2000/svg" class="chart" width="460.0" height="280.0" viewBox="0 0 460.0 280.0" role="img" aria-label="loss: ">
    <text x="72.0" y="22.0" text-anchor="start" class="title">loss</text>
    <text x="72.0" y="40.0" text-anchor="start" class="remark"></text>
    <rect class="bar" fill-opacity="0.45" x="256.0" y="52.0" width="184.0" height="90.0"/>
    <text x="348.0" y="101.0" text-anchor="middle" class="label">4</text>
    <rect class="bar" fill-opacity="0.11" x="72.0" y="142.0" width="184.0" height="90.0"/>
    <text x="164.0" y="191.0" text-anchor="middle" class="label">1</text>
    <rect class="bar" fill-opacity="0.23" x="256.0" y="142.0" width="184.0" height="90.0"/>
    <text x="348.0" y="191.0" text-anchor="middle" class="label">2</text>
    <text x="66.0" y="101.0" text-anchor="end" class="remark">no</text>
    <text x="66.0" y="191.0" text-anchor="end" class="remark">yes é~</text>
    <text x="164.0" y="248.0" text-anchor="middle" class="remark">no</text>
    <text x="348.0" y="248.0" text-anchor="middle" class="remark">yes ~</text>
    <line class="axis" x1="72.0" y1="52.0" x2="72.0" y2="232.0"/>
    <line class="axis" x1="72.0" y1="232.0" x2="440.0" y2="232.0"/>
    <text x="256.0" y="268.0" text-anchor="middle" class="label">epoch</text>
    <text transform="translate(18 142.0) rotate(-90)" text-anchor="middle">loss</text>
</svg>
)svg");
}

TEST(SvgChart, putsTwoPanelsBesideEachOther) {
  const std::string picture = pictureOf({curve({1}), curve({1}), curve({1})}, "three");
  EXPECT_EQ(picture.substr(0, picture.find('\n')),
            R"(<svg xmlns="http://www.w3.org/2000/svg" width="920.0" height="616.0")"
            R"( viewBox="0 0 920.0 616.0">)");
  EXPECT_EQ(countOf(picture, "  <title>three</title>\n"), 1u);
  EXPECT_EQ(
      countOf(picture, R"(<text x="20.0" y="36.0" text-anchor="start" class="heading">three<)"),
      1u);
  std::string places;
  std::istringstream lines(picture);
  for (std::string line; std::getline(lines, line);) {
    if (line.find("<g ") != std::string::npos) places += line + "\n";
  }
  EXPECT_EQ(places,
            "  <g transform=\"translate(0.0 56.0)\">\n"
            "  <g transform=\"translate(460.0 56.0)\">\n"
            "  <g transform=\"translate(0.0 336.0)\">\n");
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
