// What there is to draw of recordings: posteriors over time, and what was taken for what.
#pragma once

#include <vector>

#include "tools/page/RecordingFindings.h"
#include "tools/reports/ModelCharts.h"

namespace mlnn {

// Returns a map of posteriors for each recording that is shown as a picture, and of those whose
// class is known a table of the classes that occur, what they are by rows and what they were taken
// for by columns, unless it would be too large to be seen (hasConfusionTable).
std::vector<Chart> chartsOf(const RecordingFindings& found);

}  // namespace mlnn
