#include "tools/reports/SvgChart.h"

#include <algorithm>
#include <cmath>
#include <ostream>

#include "text/Numbers.h"
#include "tools/reports/XmlText.h"

namespace mlnn {
namespace {

// All lengths are in the picture's units, pixels at its own size.
constexpr double kPanelWidth = 460;
constexpr double kPanelHeight = 280;
constexpr double kHeadingHeight = 56;
constexpr double kLeft = 72;  // from the panel's edge to the plot
constexpr double kRight = 20;
constexpr double kTop = 52;
constexpr double kBottom = 48;
constexpr double kPlotWidth = kPanelWidth - kLeft - kRight;
constexpr double kPlotHeight = kPanelHeight - kTop - kBottom;
constexpr int kTicks = 5;

constexpr char kStyle[] =
    "  <style>\n"
    "    svg { background: #ffffff; font: 12px sans-serif; }\n"
    "    text { fill: #24292f; }\n"
    "    .title { font-size: 14px; font-weight: bold; }\n"
    "    .heading { font-size: 16px; font-weight: bold; }\n"
    "    .remark { fill: #57606a; }\n"
    "    .grid { stroke: #d0d7de; }\n"
    "    .axis { stroke: #57606a; }\n"
    "    .line { stroke: #0969da; stroke-width: 1.8; fill: none; }\n"
    "    .point, .bar { fill: #0969da; }\n"
    "    @media (prefers-color-scheme: dark) {\n"
    "      svg { background: #0d1117; }\n"
    "      text { fill: #e6edf3; }\n"
    "      .remark { fill: #9198a1; }\n"
    "      .grid { stroke: #30363d; }\n"
    "      .axis { stroke: #9198a1; }\n"
    "      .line { stroke: #58a6ff; }\n"
    "      .point, .bar { fill: #58a6ff; }\n"
    "    }\n"
    "  </style>\n";

std::string length(double value) { return fixedNumber(value, 1); }

std::string attribute(const char* name, double value) {
  return std::string(" ") + name + "=\"" + length(value) + "\"";
}

// `anchor` is the point of the text at x: start, middle or end.
void writeText(std::ostream& out, double x, double y, const char* anchor, const char* style,
               const std::string& text) {
  out << "    <text" << attribute("x", x) << attribute("y", y) << " text-anchor=\"" << anchor
      << "\" class=\"" << style << "\">" << xmlText(text) << "</text>\n";
}

void writeLine(std::ostream& out, const char* style, double x1, double y1, double x2, double y2) {
  out << "    <line class=\"" << style << "\"" << attribute("x1", x1) << attribute("y1", y1)
      << attribute("x2", x2) << attribute("y2", y2) << "/>\n";
}

// A range of numbers along one axis, with evenly spaced round ticks.
struct Scale {
  double low;
  double high;
  double tick;

  double share(double value) const { return (value - low) / (high - low); }
};

// Returns 1, 2 or 5 times a power of ten: about a kTicks-th of the width.
double roundTick(double width) {
  const double rough = width / kTicks;
  const double power = std::pow(10.0, std::floor(std::log10(rough)));
  for (const double factor : {1.0, 2.0, 5.0}) {
    if (factor * power >= rough) return factor * power;
  }
  return 10 * power;
}

// From zero (or below) to a tick above the largest value.
Scale verticalScale(const std::vector<double>& values) {
  double low = 0;
  double high = 0;
  for (const double value : values) {
    if (std::isnan(value)) continue;
    low = std::min(low, value);
    high = std::max(high, value);
  }
  if (low == high) high = low + 1;
  const double tick = roundTick(high - low);
  return {std::floor(low / tick) * tick, std::ceil(high / tick) * tick, tick};
}

Scale horizontalScale(const Chart& chart) {
  const double high = chart.xHigh > chart.xLow ? chart.xHigh : chart.xLow + 1;
  double tick = roundTick(high - chart.xLow);
  if (chart.kind != Chart::Kind::kHistogram) tick = std::max(tick, 1.0);  // epochs are whole
  return {chart.xLow, high, tick};
}

// One chart, drawn from the panel's own upper left corner.
class Panel {
 public:
  Panel(std::ostream& out, const Chart& chart)
      : out_(out),
        chart_(chart),
        largest_(largestOf(chart)),
        x_(horizontalScale(chart)),
        y_(verticalScale(chart.values)) {}

  void write() const {
    writeText(out_, kLeft, kTop - 30, "start", "title", chart_.title);
    writeText(out_, kLeft, kTop - 12, "start", "remark", chart_.remark);
    if (chart_.kind == Chart::Kind::kMap) return writeMap();
    writeVerticalTicks();
    writeHorizontalTicks();
    if (chart_.kind == Chart::Kind::kCurve) {
      writeCurve();
    } else {
      writeBars();
    }
    writeAxes();
  }

 private:
  double xAt(double value) const { return kLeft + x_.share(value) * kPlotWidth; }
  double yAt(double value) const { return kTop + (1 - y_.share(value)) * kPlotHeight; }

  void writeVerticalTicks() const {
    for (int tick = 0;; ++tick) {
      const double value = y_.low + tick * y_.tick;
      if (value > y_.high + y_.tick / 2) return;
      writeLine(out_, "grid", kLeft, yAt(value), kLeft + kPlotWidth, yAt(value));
      writeText(out_, kLeft - 8, yAt(value) + 4, "end", "remark", tickText(value, y_));
    }
  }

  void writeHorizontalTicks() const {
    const double first = std::ceil(x_.low / x_.tick) * x_.tick;
    for (int tick = 0;; ++tick) {
      const double value = first + tick * x_.tick;
      if (value > x_.high + x_.tick * 1e-9) return;
      writeLine(out_, "axis", xAt(value), kTop + kPlotHeight, xAt(value), kTop + kPlotHeight + 4);
      writeText(out_, xAt(value), kTop + kPlotHeight + 18, "middle", "remark", tickText(value, x_));
    }
  }

  // Multiples of a tick miss zero by a rounding error.
  static std::string tickText(double value, const Scale& scale) {
    return generalNumber(std::abs(value) < scale.tick / 2 ? 0 : value, 4);
  }

  void writeAxes() const {
    const double bottom = kTop + kPlotHeight;
    writeLine(out_, "axis", kLeft, kTop, kLeft, bottom);
    writeLine(out_, "axis", kLeft, bottom, kLeft + kPlotWidth, bottom);
    writeText(out_, kLeft + kPlotWidth / 2, bottom + 36, "middle", "label", chart_.xLabel);
    out_ << "    <text transform=\"translate(18 " << length(kTop + kPlotHeight / 2)
         << ") rotate(-90)\" text-anchor=\"middle\">" << xmlText(chart_.yLabel) << "</text>\n";
  }

  double positionOf(std::size_t i) const { return xAt(chart_.xLow + static_cast<double>(i)); }

  // A line through the values, broken where there is none; a point where it would be too short.
  void writeCurve() const {
    std::string path;
    bool isDown = false;
    for (std::size_t i = 0; i < chart_.values.size(); ++i) {
      const double value = chart_.values[i];
      const bool isValue = !std::isnan(value);
      if (isValue) {
        path += (isDown ? " L" : " M") + length(positionOf(i)) + " " + length(yAt(value));
        if (chart_.values.size() <= 100) writePoint(positionOf(i), yAt(value));
      }
      isDown = isValue;
    }
    if (!path.empty()) out_ << "    <path class=\"line\" d=\"" << path.substr(1) << "\"/>\n";
  }

  void writePoint(double x, double y) const {
    out_ << "    <circle class=\"point\"" << attribute("cx", x) << attribute("cy", y)
         << " r=\"2.2\"/>\n";
  }

  void writeBars() const {
    const double width = kPlotWidth / static_cast<double>(chart_.values.size());
    for (std::size_t i = 0; i < chart_.values.size(); ++i) {
      const double top = yAt(chart_.values[i]);
      const double left = kLeft + static_cast<double>(i) * width;
      out_ << "    <rect class=\"bar\"" << attribute("x", left) << attribute("y", top)
           << attribute("width", std::max(width - 0.5, 0.5))
           << attribute("height", kTop + kPlotHeight - top) << "/>\n";
    }
  }

  // A cell for each value, the deeper the larger it is.
  void writeMap() const {
    const bool isTable = !chart_.columnNames.empty();
    const double deepest = isTable ? 0.45 : 1;  // numbers on it are to be read
    const double width = kPlotWidth / static_cast<double>(chart_.columns);
    const double height = kPlotHeight / static_cast<double>(chart_.rowNames.size());
    for (std::size_t i = 0; i < chart_.values.size(); ++i) {
      const double share = chart_.values[i] / largest_;
      if (!(share >= 0.005)) continue;
      const double left = kLeft + static_cast<double>(i % chart_.columns) * width;
      const double top = kTop + static_cast<double>(i / chart_.columns) * height;
      out_ << "    <rect class=\"bar\" fill-opacity=\"" << fixedNumber(share * deepest, 2) << "\""
           << attribute("x", left) << attribute("y", top) << attribute("width", width)
           << attribute("height", height) << "/>\n";
      if (!isTable) continue;
      writeText(out_, left + width / 2, top + height / 2 + 4, "middle", "label",
                generalNumber(chart_.values[i], 9));
    }
    writeNames(width, height);
    if (!isTable) writeHorizontalTicks();
    writeAxes();
  }

  // Names are left out where they would stand on each other.
  void writeNames(double width, double height) const {
    for (std::size_t i = 0; i < chart_.rowNames.size() && height >= 6; ++i) {
      writeText(out_, kLeft - 6, kTop + (static_cast<double>(i) + 0.5) * height + 4, "end",
                "remark", nameText(chart_.rowNames[i], 6));
    }
    for (std::size_t i = 0; i < chart_.columnNames.size() && width >= 16; ++i) {
      writeText(out_, kLeft + (static_cast<double>(i) + 0.5) * width, kTop + kPlotHeight + 16,
                "middle", "remark", nameText(chart_.columnNames[i], width >= 36 ? 5 : 2));
    }
  }

  // At most so many bytes of a name, and no part of a character.
  static std::string nameText(const std::string& name, std::size_t most) {
    if (name.size() <= most) return name;
    while (most > 0 && (name[most] & 0xC0) == 0x80) --most;
    return name.substr(0, most) + "~";
  }

  // Posteriors have 1 to be compared with.
  static double largestOf(const Chart& chart) {
    double largest = chart.columnNames.empty() ? 1 : 0;
    for (const double value : chart.values) largest = std::max(largest, value);
    return largest > 0 ? largest : 1;
  }

  std::ostream& out_;
  const Chart& chart_;
  double largest_;
  Scale x_;
  Scale y_;
};

}  // namespace

void writeSvg(std::ostream& out, const std::string& heading, const std::vector<Chart>& charts) {
  const std::size_t rows = (charts.size() + 1) / 2;
  const double width = 2 * kPanelWidth;
  const double height = kHeadingHeight + static_cast<double>(rows) * kPanelHeight;
  out << "<svg xmlns=\"http://www.w3.org/2000/svg\"" << attribute("width", width)
      << attribute("height", height) << " viewBox=\"0 0 " << length(width) << " " << length(height)
      << "\">\n"
      << "  <title>" << xmlText(heading) << "</title>\n"
      << kStyle;
  writeText(out, 20, 36, "start", "heading", heading);
  for (std::size_t i = 0; i < charts.size(); ++i) {
    const std::size_t row = i / 2;
    const std::size_t column = i % 2;
    out << "  <g transform=\"translate(" << length(static_cast<double>(column) * kPanelWidth) << " "
        << length(kHeadingHeight + static_cast<double>(row) * kPanelHeight) << ")\">\n";
    Panel(out, charts[i]).write();
    out << "  </g>\n";
  }
  out << "</svg>\n";
}

void writeSvgPanel(std::ostream& out, const Chart& chart) {
  out << "<svg xmlns=\"http://www.w3.org/2000/svg\" class=\"chart\""
      << attribute("width", kPanelWidth) << attribute("height", kPanelHeight) << " viewBox=\"0 0 "
      << length(kPanelWidth) << " " << length(kPanelHeight) << "\" role=\"img\" aria-label=\""
      << xmlText(chart.title + ": " + chart.remark) << "\">\n";
  Panel(out, chart).write();
  out << "</svg>\n";
}

}  // namespace mlnn
