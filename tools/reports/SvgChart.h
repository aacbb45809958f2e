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

}  // namespace mlnn
