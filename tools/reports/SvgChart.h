// writeSvg — charts as a self-contained SVG picture.
#pragma once

#include <iosfwd>
#include <string>
#include <vector>

#include "tools/reports/ModelCharts.h"

namespace mlnn {

// Writes one picture with a heading and all charts, two beside each other. Its colours follow
// the reader's choice of a light or dark page.
void writeSvg(std::ostream& out, const std::string& heading, const std::vector<Chart>& charts);

// Writes one chart as an `svg` element of a page, whose style gives it its colours (the classes are
// those of the picture above). What is in it stands in its label too, but for the values.
void writeSvgPanel(std::ostream& out, const Chart& chart);

}  // namespace mlnn
