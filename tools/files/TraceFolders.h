// compareTraceFolders — finds where the results of two engines part, trace by trace.
#pragma once

#include <string>
#include <vector>

#include "analysis/TraceComparison.h"

namespace mlnn {

struct TraceComparison {
  std::string recording;  // the folder of a trace among several; "" for a single one
  std::vector<StageComparison> stages;
};

// Compares two folders, each the trace of one recording or a folder of such traces
// (tools/files/TraceWriter.h). Stages and traces that only one of them has are left out when
// `commonOnly` says so.
// Throws: Failure when a folder or a file cannot be read, or nothing is in both.
std::vector<TraceComparison> compareTraceFolders(const std::string& a, const std::string& b,
                                                 bool commonOnly);

}  // namespace mlnn
