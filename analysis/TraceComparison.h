// compareTraces — finds where the results of two engines part, stage by stage.
#pragma once

#include <Eigen/Core>
#include <functional>
#include <string>
#include <vector>

#include "analysis/Difference.h"
#include "features/Export.h"
#include "features/Watch.h"

namespace mlnn {

// How far apart two traces are at one stage (analysis/Stage.h).
struct MLNN_EXPORT StageComparison {
  // What one trace has of a stage; nothing when it does not have it.
  struct Side {
    bool isPresent = false;    // whether the trace has the stage
    Eigen::Index frames = 0;   // how many there are
    Eigen::Index values = 0;   // for one frame
    float valueAtLargest = 0;  // where the difference is largest
  };

  std::string stage;      // its name
  Side a;                 // of the first trace
  Side b;                 // of the second one
  Difference difference;  // none unless both have the same shape

  // Whether both traces have the stage.
  bool isInBoth() const { return a.isPresent && b.isPresent; }

  // Whether both have as many frames, and as many values for each.
  bool sameShape() const { return a.frames == b.frames && a.values == b.values; }

  // Whether the results part here: only one trace has the stage, the shapes differ, or a
  // difference is over `tolerance`.
  bool isBeyond(double tolerance) const;
};

// One side of a comparison: the stages that are there, in the order in which they are computed
// (analysis/Stage.h), and what gives the values of one, frames as columns.
struct Trace {
  // Names of stages, and the function.
  std::vector<std::string> stages;
  std::function<Eigen::MatrixXf(const std::string& stage)> values;
};

// Compares two traces. Only the values of one stage of each are in memory at a time. Stages that
// only one of them has are left out when `commonOnly` says so. `watch` is told of stages. What the
// functions of the traces throw passes through.
MLNN_EXPORT std::vector<StageComparison> compareTraces(const Trace& a, const Trace& b,
                                                       bool commonOnly, const Watch& watch = {});

}  // namespace mlnn
