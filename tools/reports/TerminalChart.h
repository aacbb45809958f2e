// printChart — a chart as a sketch of characters.
#pragma once

#include <cstddef>
#include <iosfwd>

#include "tools/reports/ModelCharts.h"
#include "tools/reports/Terminal.h"

namespace mlnn {

// Prints the chart with its title, at most `width` characters wide. Where there are more values
// than columns, a column shows the mean of its values. A table of counts is as wide as it is.
// REQUIRES: width is at least kMinChartWidth.
void printChart(std::ostream& out, const Chart& chart, std::size_t width, CharacterSet set);

inline constexpr std::size_t kMinChartWidth = 24;

}  // namespace mlnn
