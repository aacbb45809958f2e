#include "tools/commands/CompareCommand.h"

#include <algorithm>
#include <iostream>

#include "text/Escape.h"
#include "text/Numbers.h"
#include "tools/Failure.h"
#include "tools/commands/Tolerance.h"
#include "tools/files/TraceFolders.h"
#include "tools/reports/DifferenceReport.h"
#include "tools/reports/Json.h"
#include "tools/shell/Tool.h"

namespace mlnn {
namespace {

using Align = Table::Align;

constexpr int kDifferent = 1;
constexpr int kTrouble = 2;

struct Options {
  std::string a;
  std::string b;
  double tolerance = kDefaultTolerance;
  bool commonOnly = false;
  bool json = false;
};

CommandHelp help() {
  CommandHelp help;
  help.name = "compare";
  help.summary = "Finds where the results of two engines part, layer by layer";
  help.details =
      "DIR1 and DIR2 are folders as `mlnn run --trace` writes them, or as another framework's\n"
      "results are put for comparison: .npy files of frames x values, called inputs, "
      "layer-K-affine\n"
      "and layer-K (before and after the activation, K from 1), and outputs. A folder of such\n"
      "folders is compared one by one.\n"
      "\n"
      "What only one of them has counts as a difference, unless --common leaves it out. Values\n"
      "are compared as 32-bit floats. Frames and units count from 0.";
  help.examples =
      "mlnn run model.mlnn word.npy --trace ours/\n"
      "mlnn compare ours/ theirs/ --common\n"
      "mlnn compare --json --tolerance 1e-5 ours/ theirs/ | jq .traces[].first_to_differ";
  help.exitStatus =
      "0  the results are the same within the tolerance\n"
      "1  they differ\n"
      "2  trouble: wrong usage, or a file or folder was refused";
  help.failureStatus = kTrouble;
  return help;
}

const StageComparison* firstBeyond(const TraceComparison& trace, double tolerance) {
  const auto found =
      std::find_if(trace.stages.begin(), trace.stages.end(),
                   [tolerance](const StageComparison& stage) { return stage.isBeyond(tolerance); });
  return found == trace.stages.end() ? nullptr : &*found;
}

// --- Text ---

// "61", or both numbers where they differ.
std::string countText(const StageComparison& stage, Eigen::Index StageComparison::Side::*count) {
  const auto text = [count](const StageComparison::Side& side) {
    return side.isPresent ? std::to_string(side.*count) : std::string("-");
  };
  const std::string a = text(stage.a);
  const std::string b = text(stage.b);
  return a == b ? a : a + " | " + b;
}

std::string describe(const StageComparison& stage, const Options& options) {
  if (!stage.isInBoth()) {
    return stage.stage + ", which only " + inQuotes(stage.a.isPresent ? options.a : options.b) +
           " has";
  }
  if (!stage.sameShape()) return stage.stage + ", whose shapes differ";
  const Difference::Place place = stage.difference.placeOfLargest();
  const auto text = [](float value) {
    return generalNumber(static_cast<double>(value), kExactDigits);
  };
  return stage.stage + ", by " + differenceText(stage.difference.largest()) + " at frame " +
         std::to_string(place.col) + ", unit " + std::to_string(place.row) + " (" +
         text(stage.a.valueAtLargest) + " | " + text(stage.b.valueAtLargest) + ")";
}

void printTrace(const TraceComparison& trace, const Options& options) {
  if (!trace.recording.empty()) std::cout << escaped(trace.recording) << "\n";
  DifferenceTable table({Align::kLeft, Align::kRight, Align::kRight},
                        {"stage", "frames", "values"});
  for (const StageComparison& stage : trace.stages) {
    std::vector<std::string> cells = {stage.stage, countText(stage, &StageComparison::Side::frames),
                                      countText(stage, &StageComparison::Side::values)};
    if (stage.isInBoth() && stage.sameShape()) {
      table.addRow(std::move(cells), stage.difference);
    } else {
      table.addRow(std::move(cells));
    }
  }
  table.print(std::cout);
  const StageComparison* first = firstBeyond(trace, options.tolerance);
  std::cout << "first to differ: " << (first == nullptr ? "none" : describe(*first, options))
            << "\n";
}

// --- JSON ---

Json sideJson(const StageComparison::Side& side) {
  if (!side.isPresent) return nullptr;
  return {{"frames", side.frames}, {"values", side.values}};
}

Json stageJson(const StageComparison& stage, double tolerance) {
  Json json = {{"stage", stage.stage},
               {"differs", stage.isBeyond(tolerance)},
               {"a", sideJson(stage.a)},
               {"b", sideJson(stage.b)}};
  if (!stage.isInBoth() || !stage.sameShape()) return json;
  const Difference::Place place = stage.difference.placeOfLargest();
  json["difference"] = differenceJson(stage.difference);
  json["place"] = {{"frame", place.col},
                   {"unit", place.row},
                   {"a", stage.a.valueAtLargest},
                   {"b", stage.b.valueAtLargest}};
  return json;
}

Json traceJson(const TraceComparison& trace, double tolerance) {
  const StageComparison* first = firstBeyond(trace, tolerance);
  Json stages = Json::array();
  for (const StageComparison& stage : trace.stages) stages.push_back(stageJson(stage, tolerance));
  return {{"recording", trace.recording},
          {"first_to_differ", first == nullptr ? Json() : Json(first->stage)},
          {"stages", stages}};
}

void printJson(const std::vector<TraceComparison>& traces, const Options& options, bool isSame) {
  Json json = {
      {"a", options.a}, {"b", options.b}, {"same", isSame}, {"tolerance", options.tolerance}};
  json["traces"] = Json::array();
  for (const TraceComparison& trace : traces) {
    json["traces"].push_back(traceJson(trace, options.tolerance));
  }
  mlnn::printJson(json);
}

int run(const Options& options) {
  const std::vector<TraceComparison> traces =
      compareTraceFolders(options.a, options.b, options.commonOnly);
  const bool isSame =
      std::all_of(traces.begin(), traces.end(), [&options](const TraceComparison& trace) {
        return firstBeyond(trace, options.tolerance) == nullptr;
      });
  if (options.json) {
    printJson(traces, options, isSame);
    return isSame ? kDone : kDifferent;
  }
  for (const TraceComparison& trace : traces) {
    if (&trace != &traces.front()) std::cout << "\n";
    printTrace(trace, options);
  }
  return isSame ? kDone : kDifferent;
}

}  // namespace

void addCompareCommand(Tool& tool) {
  const auto options = std::make_shared<Options>();
  CommandLine command = tool.addCommand(help(), [options] { return run(*options); });
  command.add("DIR1", options->a, "Folder with a trace, or with traces").required();
  command.add("DIR2", options->b, "The other folder").required();
  addToleranceOption(command, options->tolerance);
  command.addFlag("--common", options->commonOnly, "Leave out what only one of them has");
  command.addFlag("--json", options->json, "Print JSON");
}

}  // namespace mlnn
