#include "tools/reports/TerminalChart.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstddef>
#include <limits>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

#include "text/Escape.h"
#include "text/Numbers.h"
#include "tools/reports/Table.h"

namespace mlnn {
namespace {

constexpr std::size_t kHeight = 8;
constexpr std::size_t kLabelWidth = 10;  // room for the numbers of the vertical axis
constexpr int kDigits = 4;

// A full line of a column, and what its upper end looks like by eighths of a line.
constexpr std::array<const char*, 9> kEighths = {" ", "▁", "▂", "▃", "▄", "▅", "▆", "▇", "█"};

struct Axis {
  double low;
  double high;
};

// From zero, so that heights can be compared; lower where values are negative.
Axis verticalAxis(const std::vector<double>& values) {
  Axis axis{0, 0};
  for (const double value : values) {
    if (std::isnan(value)) continue;
    axis.low = std::min(axis.low, value);
    axis.high = std::max(axis.high, value);
  }
  if (axis.low == axis.high) axis.high = axis.low + 1;
  return axis;
}

double mean(const std::vector<double>& values, std::size_t begin, std::size_t end) {
  double sum = 0;
  std::size_t count = 0;
  for (std::size_t i = begin; i < end; ++i) {
    if (std::isnan(values[i])) continue;
    sum += values[i];
    ++count;
  }
  return count == 0 ? std::numeric_limits<double>::quiet_NaN() : sum / static_cast<double>(count);
}

// One value for each column, of which there are at most `width`.
std::vector<double> columnsOf(const std::vector<double>& values, std::size_t width) {
  if (values.size() <= width) return values;
  std::vector<double> columns(width);
  for (std::size_t i = 0; i < width; ++i) {
    columns[i] = mean(values, i * values.size() / width, (i + 1) * values.size() / width);
  }
  return columns;
}

// How many eighths of a line the column of a value is high; at least one for what is not the
// axis's lower end, so that nothing present looks absent.
std::size_t eighthsOf(double value, const Axis& axis) {
  if (std::isnan(value)) return 0;
  const double share = (value - axis.low) / (axis.high - axis.low);
  const auto eighths = static_cast<std::size_t>(std::lround(share * 8 * kHeight));
  return value > axis.low ? std::max<std::size_t>(eighths, 1) : eighths;
}

const char* characterAt(std::size_t eighths, std::size_t line, CharacterSet set) {
  const std::size_t inLine = eighths <= 8 * line ? 0 : std::min<std::size_t>(eighths - 8 * line, 8);
  if (set == CharacterSet::kUnicode) return kEighths[inLine];
  return inLine >= 4 || (inLine > 0 && line == 0) ? "#" : " ";
}

std::string rightAligned(const std::string& text, std::size_t width) {
  return text.size() < width ? std::string(width - text.size(), ' ') + text : text;
}

std::string numberText(double value) { return generalNumber(value, kDigits); }

std::string lineLabel(std::size_t line, const Axis& axis) {
  if (line == kHeight - 1) return numberText(axis.high);
  return line == 0 ? numberText(axis.low) : "";
}

void dropTrailingBlanks(std::string& line) { line.erase(line.find_last_not_of(' ') + 1); }

// The two ends of the horizontal axis, and between them what it shows.
std::string horizontalAxis(const Chart& chart, std::size_t width) {
  const std::string low = numberText(chart.xLow);
  const std::string high = numberText(chart.xHigh);
  const std::string label = " " + chart.xLabel + " ";
  const std::size_t used = low.size() + label.size() + high.size();
  const std::size_t free = width > used ? width - used : 0;
  return low + std::string(free / 2, ' ') + label + std::string(free - free / 2, ' ') + high;
}

// --- Maps ---

constexpr std::array<const char*, 5> kShades = {" ", "░", "▒", "▓", "█"};
constexpr std::array<const char*, 5> kAsciiShades = {" ", ".", "+", "#", "@"};

// What a value between 0 and 1 looks like.
const char* shadeOf(double value, CharacterSet set) {
  const double step = std::isnan(value) ? 0 : 4 * std::clamp(value, 0.0, 1.0);
  const auto index = static_cast<std::size_t>(std::lround(step));
  return set == CharacterSet::kUnicode ? kShades[index] : kAsciiShades[index];
}

std::string nameText(const std::string& name) {
  if (name.size() <= kLabelWidth) return escaped(name);
  std::size_t end = kLabelWidth - 1;
  while (end > 0 && (name[end] & 0xC0) == 0x80) --end;  // not inside a UTF-8 character
  return escaped(name.substr(0, end)) + "~";
}

// A line for each row.
void printMap(std::ostream& out, const Chart& chart, std::size_t width, CharacterSet set) {
  std::size_t columns = 0;
  for (std::size_t row = 0; row < chart.rowNames.size(); ++row) {
    const auto begin = chart.values.begin() + static_cast<std::ptrdiff_t>(row * chart.columns);
    const std::vector<double> values =
        columnsOf({begin, begin + static_cast<std::ptrdiff_t>(chart.columns)}, width);
    columns = values.size();
    std::string line = rightAligned(nameText(chart.rowNames[row]), kLabelWidth) + " |";
    for (const double value : values) line += shadeOf(value, set);
    dropTrailingBlanks(line);
    out << line << "\n";
  }
  out << std::string(kLabelWidth + 2, ' ') << horizontalAxis(chart, columns) << "\n";
}

// Counts as they are.
void printCounts(std::ostream& out, const Chart& chart) {
  std::vector<std::string> heading = {""};
  for (const std::string& name : chart.columnNames) heading.push_back(nameText(name));
  Table table(std::vector<Table::Align>(heading.size(), Table::Align::kRight), heading);
  for (std::size_t row = 0; row < chart.rowNames.size(); ++row) {
    std::vector<std::string> cells = {nameText(chart.rowNames[row])};
    for (std::size_t c = 0; c < chart.columns; ++c) {
      cells.push_back(generalNumber(chart.values[row * chart.columns + c], 9));
    }
    table.addRow(std::move(cells));
  }
  table.print(out);
}

}  // namespace

void printChart(std::ostream& out, const Chart& chart, std::size_t width, CharacterSet set) {
  out << escaped(chart.title) << ": " << escaped(chart.remark) << "\n";
  if (!chart.columnNames.empty()) return printCounts(out, chart);
  if (chart.kind == Chart::Kind::kMap) return printMap(out, chart, width - kLabelWidth - 2, set);
  const std::vector<double> columns = columnsOf(chart.values, width - kLabelWidth - 2);
  const Axis axis = verticalAxis(columns);
  for (std::size_t line = kHeight; line-- > 0;) {
    std::string text = rightAligned(lineLabel(line, axis), kLabelWidth) + " |";
    for (const double value : columns) text += characterAt(eighthsOf(value, axis), line, set);
    dropTrailingBlanks(text);
    out << text << "\n";
  }
  out << std::string(kLabelWidth + 2, ' ') << horizontalAxis(chart, columns.size()) << "\n";
}

}  // namespace mlnn
