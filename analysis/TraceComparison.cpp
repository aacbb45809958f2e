#include "analysis/TraceComparison.h"

#include <algorithm>
#include <iterator>
#include <utility>

#include "analysis/Stage.h"

namespace mlnn {
namespace {

using Names = std::vector<std::string>;

// What is in either list, or in both; all of them in the order of computing.
Names combined(const Names& a, const Names& b, bool commonOnly) {
  Names names;
  const auto out = std::back_inserter(names);
  if (commonOnly) {
    std::set_intersection(a.begin(), a.end(), b.begin(), b.end(), out, comesBefore);
  } else {
    std::set_union(a.begin(), a.end(), b.begin(), b.end(), out, comesBefore);
  }
  return names;
}

// Takes the stage's values, where they are there, and says what they are.
Eigen::MatrixXf take(const Trace& trace, const std::string& stage, StageComparison::Side& side) {
  side.isPresent = std::find(trace.stages.begin(), trace.stages.end(), stage) != trace.stages.end();
  if (!side.isPresent) return {};
  Eigen::MatrixXf values = trace.values(stage);
  side.frames = values.cols();
  side.values = values.rows();
  return values;
}

StageComparison compareStage(const std::string& stage, const Trace& traceA, const Trace& traceB,
                             const Watch& watch) {
  StageComparison found;
  found.stage = stage;
  const Eigen::MatrixXf a = take(traceA, stage, found.a);
  const Eigen::MatrixXf b = take(traceB, stage, found.b);
  if (!found.isInBoth() || !found.sameShape()) return found;
  found.difference.add(a, b, watch);
  if (found.difference.count() == 0) return found;
  const Difference::Place place = found.difference.placeOfLargest();
  found.a.valueAtLargest = a(place.row, place.col);
  found.b.valueAtLargest = b(place.row, place.col);
  return found;
}

}  // namespace

bool StageComparison::isBeyond(double tolerance) const {
  return !isInBoth() || !sameShape() || difference.largest() > tolerance;
}

std::vector<StageComparison> compareTraces(const Trace& a, const Trace& b, bool commonOnly,
                                           const Watch& watch) {
  std::vector<StageComparison> stages;
  for (const std::string& stage : combined(a.stages, b.stages, commonOnly)) {
    stages.push_back(compareStage(stage, a, b, watch));
    tell(watch, 1);
  }
  return stages;
}

}  // namespace mlnn
