#include "analysis/TraceComparison.h"

#include <algorithm>
#include <filesystem>
#include <iterator>
#include <utility>

#include "analysis/Stage.h"
#include "text/Escape.h"
#include "tools/Failure.h"
#include "tools/files/Frames.h"
#include "tools/files/TraceWriter.h"

namespace fs = std::filesystem;

namespace mlnn {
namespace {

using Names = std::vector<std::string>;
using Precedes = bool (*)(const std::string&, const std::string&);

bool precedes(const std::string& a, const std::string& b) { return a < b; }

// The traces in a folder: "" for the folder itself, and those inside it by their names.
Names tracesIn(const std::string& folder) {
  Names traces;
  if (!stagesIn(folder).empty()) traces.push_back("");
  std::error_code error;
  for (fs::directory_iterator entry(folder, error), end; !error && entry != end;
       entry.increment(error)) {
    std::error_code ignored;  // of what cannot be looked at, and so is no folder
    if (!entry->is_directory(ignored) || stagesIn(entry->path().string()).empty()) continue;
    traces.push_back(entry->path().filename().string());
  }
  if (error) throw Failure("cannot read the folder " + inQuotes(folder) + ": " + error.message());
  std::sort(traces.begin(), traces.end());
  return traces;
}

// What is in either list, or in both; all of them sorted.
Names combined(const Names& a, const Names& b, bool commonOnly, Precedes order) {
  Names names;
  const auto out = std::back_inserter(names);
  if (commonOnly) {
    std::set_intersection(a.begin(), a.end(), b.begin(), b.end(), out, order);
  } else {
    std::set_union(a.begin(), a.end(), b.begin(), b.end(), out, order);
  }
  return names;
}

bool contains(const Names& names, const std::string& name) {
  return std::find(names.begin(), names.end(), name) != names.end();
}

// Reads the stage's file, where there is one, and says what it holds.
Eigen::MatrixXf readSide(const std::string& folder, const std::string& stage,
                         StageComparison::Side& side) {
  if (!side.isPresent) return {};
  Eigen::MatrixXf values = readFrames(stagePath(folder, stage));
  side.frames = values.cols();
  side.values = values.rows();
  return values;
}

StageComparison compareStage(const std::string& folderA, const std::string& folderB,
                             StageComparison found) {
  const Eigen::MatrixXf a = readSide(folderA, found.stage, found.a);
  const Eigen::MatrixXf b = readSide(folderB, found.stage, found.b);
  if (!found.isInBoth() || !found.sameShape()) return found;
  found.difference.add(a, b);
  const Difference::Place place = found.difference.placeOfLargest();
  found.a.valueAtLargest = a(place.row, place.col);
  found.b.valueAtLargest = b(place.row, place.col);
  return found;
}

std::string inFolder(const std::string& folder, const std::string& recording) {
  return recording.empty() ? folder : (fs::path(folder) / recording).string();
}

// One of the two folders, with the names of the traces in it.
struct Folder {
  std::string path;
  Names traces;

  Names stagesOf(const std::string& recording) const {
    return contains(traces, recording) ? stagesIn(inFolder(path, recording)) : Names();
  }
};

TraceComparison compareTrace(const std::string& recording, const Folder& a, const Folder& b,
                             bool commonOnly) {
  const Names stagesA = a.stagesOf(recording);
  const Names stagesB = b.stagesOf(recording);
  TraceComparison trace{recording, {}};
  for (const std::string& stage : combined(stagesA, stagesB, commonOnly, comesBefore)) {
    StageComparison found;
    found.stage = stage;
    found.a.isPresent = contains(stagesA, stage);
    found.b.isPresent = contains(stagesB, stage);
    trace.stages.push_back(
        compareStage(inFolder(a.path, recording), inFolder(b.path, recording), std::move(found)));
  }
  return trace;
}

bool hasCommonStage(const TraceComparison& trace) {
  return std::any_of(trace.stages.begin(), trace.stages.end(),
                     [](const StageComparison& stage) { return stage.isInBoth(); });
}

}  // namespace

bool StageComparison::isBeyond(double tolerance) const {
  return !isInBoth() || !sameShape() || difference.largest() > tolerance;
}

std::vector<TraceComparison> compareTraces(const std::string& a, const std::string& b,
                                           bool commonOnly) {
  const Folder folderA{a, tracesIn(a)};
  const Folder folderB{b, tracesIn(b)};
  std::vector<TraceComparison> traces;
  for (const std::string& recording :
       combined(folderA.traces, folderB.traces, commonOnly, precedes)) {
    traces.push_back(compareTrace(recording, folderA, folderB, commonOnly));
  }
  if (std::none_of(traces.begin(), traces.end(), hasCommonStage)) {
    throw Failure(inQuotes(a) + " and " + inQuotes(b) + " have no stage of a trace in common");
  }
  return traces;
}

}  // namespace mlnn
