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
#include "tools/reports/InkedLine.h"
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
  return std::string(width - std::min(width, shownWidth(text)), ' ') + text;
}

std::string numberText(double value) { return generalNumber(value, kDigits); }

std::string lineLabel(std::size_t line, const Axis& axis) {
  if (line == kHeight - 1) return numberText(axis.high);
  return line == 0 ? numberText(axis.low) : "";
}

// The two ends of the horizontal axis, and between them what it shows.
std::string horizontalAxis(const Chart& chart, std::size_t width) {
  const std::string low = numberText(chart.xLow);
  const std::string high = numberText(chart.xHigh);
  const std::string label = " " + chart.xLabel + " ";
  const std::size_t used = low.size() + label.size() + high.size();
  const std::size_t free = width > used ? width - used : 0;
  return low + std::string(free / 2, ' ') + label + std::string(free - free / 2, ' ') + high;
}

// The colour of a column of a curve or a histogram. That of a bin is by its middle.
Ink inkOfColumn(const Chart& chart, std::size_t column, std::size_t columns) {
  if (chart.kind == Chart::Kind::kCurve) return Ink::kGreen;
  const double share = (static_cast<double>(column) + 0.5) / static_cast<double>(columns);
  return chart.xLow + share * (chart.xHigh - chart.xLow) < 0 ? Ink::kCyan : Ink::kYellow;
}

void printColumns(std::ostream& out, const Chart& chart, const TerminalLook& look) {
  const std::vector<double> columns = columnsOf(chart.values, look.width - kLabelWidth - 2);
  const Axis axis = verticalAxis(columns);
  for (std::size_t line = kHeight; line-- > 0;) {
    InkedLine text(look.hasColours);
    text.add(rightAligned(lineLabel(line, axis), kLabelWidth) + " |");
    for (std::size_t c = 0; c < columns.size(); ++c) {
      text.add(characterAt(eighthsOf(columns[c], axis), line, look.set),
               inkOfColumn(chart, c, columns.size()));
    }
    out << text.text() << "\n";
  }
  out << std::string(kLabelWidth + 2, ' ') << horizontalAxis(chart, columns.size()) << "\n";
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

// The rows with as many columns as there is room for.
std::vector<std::vector<double>> rowsOf(const Chart& chart, std::size_t width) {
  std::vector<std::vector<double>> rows;
  for (std::size_t row = 0; row < chart.rowNames.size(); ++row) {
    const auto begin = chart.values.begin() + static_cast<std::ptrdiff_t>(row * chart.columns);
    rows.push_back(columnsOf({begin, begin + static_cast<std::ptrdiff_t>(chart.columns)}, width));
  }
  return rows;
}

// The row with a column's largest value, the first of equal ones.
std::size_t highestRow(const std::vector<std::vector<double>>& rows, std::size_t column) {
  std::size_t best = 0;
  for (std::size_t row = 1; row < rows.size(); ++row) {
    if (rows[row][column] > rows[best][column]) best = row;
  }
  return best;
}

// The colours of the highest rows of the columns.
std::vector<Ink> inksOf(const Chart& chart, const std::vector<std::size_t>& highest) {
  std::vector<Ink> inks(highest.size(), Ink::kPlain);
  if (chart.rightRows.empty()) return inks;
  for (std::size_t c = 0; c < highest.size(); ++c) {
    const std::size_t first = c * chart.columns / highest.size();
    inks[c] = highest[c] == chart.rightRows[first] ? Ink::kGreen : Ink::kYellow;
  }
  return inks;
}

// A line for each row.
void printMap(std::ostream& out, const Chart& chart, const TerminalLook& look) {
  const std::vector<std::vector<double>> rows = rowsOf(chart, look.width - kLabelWidth - 2);
  const std::size_t columns = rows.empty() ? 0 : rows.front().size();
  std::vector<std::size_t> highest(columns);
  for (std::size_t c = 0; c < columns; ++c) highest[c] = highestRow(rows, c);
  const std::vector<Ink> inks = inksOf(chart, highest);
  for (std::size_t row = 0; row < rows.size(); ++row) {
    InkedLine line(look.hasColours);
    line.add(rightAligned(nameText(chart.rowNames[row]), kLabelWidth) + " |");
    for (std::size_t c = 0; c < columns; ++c) {
      line.add(shadeOf(rows[row][c], look.set), row == highest[c] ? inks[c] : Ink::kPlain);
    }
    out << line.text() << "\n";
  }
  out << std::string(kLabelWidth + 2, ' ') << horizontalAxis(chart, columns) << "\n";
}

std::string countText(const Chart& chart, std::size_t row, std::size_t column, bool hasColours) {
  const double count = chart.values[row * chart.columns + column];
  const bool isPlain = count == 0 || chart.rightRows.empty();
  const bool isRight = !isPlain && row == chart.rightRows[column];
  InkedLine text(hasColours);
  text.add(generalNumber(count, 9), isPlain ? Ink::kPlain : isRight ? Ink::kGreen : Ink::kYellow);
  return text.text();
}

// Counts as they are.
void printCounts(std::ostream& out, const Chart& chart, bool hasColours) {
  std::vector<std::string> heading = {""};
  for (const std::string& name : chart.columnNames) heading.push_back(nameText(name));
  Table table(std::vector<Table::Align>(heading.size(), Table::Align::kRight), heading);
  for (std::size_t row = 0; row < chart.rowNames.size(); ++row) {
    std::vector<std::string> cells = {nameText(chart.rowNames[row])};
    for (std::size_t c = 0; c < chart.columns; ++c) {
      cells.push_back(countText(chart, row, c, hasColours));
    }
    table.addRow(std::move(cells));
  }
  table.print(out);
}

}  // namespace

void printChart(std::ostream& out, const Chart& chart, const TerminalLook& look) {
  out << escaped(chart.title) << ": " << escaped(chart.remark) << "\n";
  if (!chart.columnNames.empty()) return printCounts(out, chart, look.hasColours);
  if (chart.kind == Chart::Kind::kMap) return printMap(out, chart, look);
  printColumns(out, chart, look);
}

}  // namespace mlnn
