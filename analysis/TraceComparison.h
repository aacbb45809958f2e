// compareTraces — finds where the results of two engines part, stage by stage.
#pragma once

#include <Eigen/Core>
#include <string>
#include <vector>

#include "analysis/Difference.h"

namespace mlnn {

struct StageComparison {
  // What one folder holds of a stage; nothing when it has no file for it.
  struct Side {
    bool isPresent = false;
    Eigen::Index frames = 0;
    Eigen::Index values = 0;
    float valueAtLargest = 0;  // where the difference is largest
  };

  std::string stage;
  Side a;
  Side b;
  Difference difference;  // none unless both have the same shape

  bool isInBoth() const { return a.isPresent && b.isPresent; }
  bool sameShape() const { return a.frames == b.frames && a.values == b.values; }

  // Whether the results part here: only one folder has the stage, the shapes differ, or a
  // difference is over `tolerance`.
  bool isBeyond(double tolerance) const;
};

struct TraceComparison {
  std::string recording;  // the folder of a trace among several; "" for a single one
  std::vector<StageComparison> stages;
};

// Compares two folders, each the trace of one recording or a folder of such traces
// (tools/files/TraceWriter.h). Stages and traces that only one of them has are left out when
// `commonOnly` says so.
// Throws: Failure when a folder or a file cannot be read, or nothing is in both.
std::vector<TraceComparison> compareTraces(const std::string& a, const std::string& b,
                                           bool commonOnly);

}  // namespace mlnn
