#include "tools/files/TraceFolders.h"

#include <algorithm>
#include <filesystem>
#include <iterator>

#include "os/Names.h"
#include "text/Escape.h"
#include "tools/Failure.h"
#include "tools/files/Frames.h"
#include "tools/files/TraceWriter.h"

namespace fs = std::filesystem;

namespace mlnn {
namespace {

using Names = std::vector<std::string>;

// The traces in a folder: "" for the folder itself, and those inside it by their names.
Names tracesIn(const std::string& folder) {
  Names traces;
  if (!stagesIn(folder).empty()) traces.push_back("");
  std::error_code error;
  for (fs::directory_iterator entry(pathOf(folder), error), end; !error && entry != end;
       entry.increment(error)) {
    std::error_code ignored;  // of what cannot be looked at, and so is no folder
    if (!entry->is_directory(ignored) || stagesIn(nameOf(entry->path())).empty()) continue;
    traces.push_back(nameOf(entry->path().filename()));
  }
  if (error) throw Failure("cannot read the folder " + inQuotes(folder) + ": " + error.message());
  std::sort(traces.begin(), traces.end());
  return traces;
}

// What is in either list, or in both; all of them sorted.
Names combined(const Names& a, const Names& b, bool commonOnly) {
  Names names;
  const auto out = std::back_inserter(names);
  if (commonOnly) {
    std::set_intersection(a.begin(), a.end(), b.begin(), b.end(), out);
  } else {
    std::set_union(a.begin(), a.end(), b.begin(), b.end(), out);
  }
  return names;
}

std::string inFolder(const std::string& folder, const std::string& recording) {
  return recording.empty() ? folder : nameOf(pathOf(folder) / pathOf(recording));
}

// One of the two folders, with the names of the traces in it.
struct Folder {
  std::string path;
  Names traces;

  // A trace without stages where there is none of that name.
  Trace traceOf(const std::string& recording) const {
    const bool isPresent = std::find(traces.begin(), traces.end(), recording) != traces.end();
    const std::string folder = inFolder(path, recording);
    return {isPresent ? stagesIn(folder) : Names(),
            [folder](const std::string& stage) { return readFrames(stagePath(folder, stage)); }};
  }
};

bool hasCommonStage(const TraceComparison& trace) {
  return std::any_of(trace.stages.begin(), trace.stages.end(),
                     [](const StageComparison& stage) { return stage.isInBoth(); });
}

}  // namespace

std::vector<TraceComparison> compareTraceFolders(const std::string& a, const std::string& b,
                                                 bool commonOnly) {
  const Folder folderA{a, tracesIn(a)};
  const Folder folderB{b, tracesIn(b)};
  std::vector<TraceComparison> traces;
  for (const std::string& recording : combined(folderA.traces, folderB.traces, commonOnly)) {
    traces.push_back({recording, compareTraces(folderA.traceOf(recording),
                                               folderB.traceOf(recording), commonOnly)});
  }
  if (std::none_of(traces.begin(), traces.end(), hasCommonStage)) {
    throw Failure(inQuotes(a) + " and " + inQuotes(b) + " have no stage of a trace in common");
  }
  return traces;
}

}  // namespace mlnn
