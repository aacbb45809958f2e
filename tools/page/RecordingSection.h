// What a page says of recordings.
#pragma once

#include "tools/page/Markup.h"
#include "tools/page/RecordingFindings.h"

namespace mlnn {

void writeRecordings(Markup& page, const RecordingFindings& found);

// The label of a class, "?" for -1.
std::string classText(const RecordingFindings& found, Eigen::Index number);

}  // namespace mlnn
