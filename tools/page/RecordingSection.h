// What a page says of recordings.
#pragma once

#include <string>
#include <vector>

#include "tools/page/Markup.h"
#include "tools/page/RecordingFindings.h"

namespace mlnn {

void writeRecordings(Markup& page, const RecordingFindings& found);

// The label of a class, "?" for -1.
std::string classText(const RecordingFindings& found, Eigen::Index number);

// Whether there are recordings whose class is known, and so few classes that a table of them all
// can be seen.
bool hasConfusionTable(const Confusion& confusion);

// The rows and columns of a matrix of what was taken for what: all classes that are or were decided
// in some recording, in their order, and for columns -1 behind them where a decision was missing.
std::vector<Eigen::Index> knownClasses(const Confusion& confusion);
std::vector<Eigen::Index> decidedClasses(const Confusion& confusion);

}  // namespace mlnn
