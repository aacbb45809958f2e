// printChart — a chart as a sketch of characters.
#pragma once

#include <cstddef>
#include <iosfwd>

#include "tools/reports/ModelCharts.h"
#include "tools/reports/Terminal.h"

namespace mlnn {

// Prints the chart with its title, at most as wide as the look is. Where there are more values
// than columns, a column shows the mean of its values. A table of counts is as wide as it is.
// In colours curves are green, bins below zero cyan, others yellow; in maps and tables the largest
// value of a column, or a count, is green where it is right and yellow where it is wrong.
// REQUIRES: the look is at least kMinChartWidth wide.
void printChart(std::ostream& out, const Chart& chart, const TerminalLook& look);

inline constexpr std::size_t kMinChartWidth = 24;

}  // namespace mlnn
