#include "tools/page/DifferenceSection.h"

#include <algorithm>
#include <optional>
#include <string>
#include <vector>

#include "analysis/ModelBudget.h"
#include "analysis/ModelSummary.h"
#include "text/Numbers.h"
#include "tools/page/PageParts.h"
#include "tools/page/RecordingSection.h"
#include "tools/reports/DifferenceReport.h"
#include "tools/reports/FormatText.h"

namespace mlnn {
namespace {

constexpr std::size_t kMostRows = 500;
constexpr std::size_t kMostBytes = 300;  // of a text that one of them says

std::string shown(const std::optional<std::string>& text) {
  if (!text) return "-";
  if (text->size() <= kMostBytes) return *text;
  std::size_t end = kMostBytes;
  while (end > 0 && ((*text)[end] & 0xC0) == 0x80) --end;  // not inside a UTF-8 character
  return text->substr(0, end) + " ... (" + std::to_string(text->size()) + " bytes in all)";
}

// What there is to say of one of the models, for the table that has them side by side.
std::vector<std::string> factsOf(const ModelFile& file, const RecordingFindings* recordings) {
  const ModelSummary summary = summaryOf(file.model);
  const ModelBudget budget = budgetOf(file.model);
  std::vector<std::string> facts = {formatText(file),
                                    bytesText(file.length),
                                    file.model.debug_description(),
                                    grouped(summary.parameters),
                                    budget.weightForms,
                                    grouped(static_cast<std::size_t>(budget.multiplyAdds)),
                                    std::to_string(file.model.checksum())};
  if (recordings == nullptr || recordings->confusion().recordings() == 0) return facts;
  const Confusion& confusion = recordings->confusion();
  facts.push_back(shareText(confusion.right(), confusion.recordings()));
  return facts;
}

void writeBeside(Markup& page, const PageSubject& subject) {
  constexpr const char* kNames[] = {"Format",     "File",          "Shape",
                                    "Parameters", "Image weights", "Multiply-adds a frame",
                                    "Checksum",   "Accuracy"};
  const std::vector<std::string> a = factsOf(subject.file, subject.recordings);
  const std::vector<std::string> b = factsOf(*subject.other, subject.otherRecordings);
  DataTable table(page, "Side by side", {{"What"}, {"This model"}, {"The other"}});
  table.row({"Name", subject.file.name, subject.other->name});
  for (std::size_t i = 0; i < std::min(a.size(), b.size()); ++i) table.row({kNames[i], a[i], b[i]});
}

void writeStatements(Markup& page, const ModelDiff& diff) {
  page.element("h3", "What the models say");
  if (diff.sameStatements()) {
    page.element("p", "The same.");
    return;
  }
  DataTable table(page, counted(diff.statements.size(), "difference"),
                  {{"What"}, {"This model"}, {"The other"}});
  for (std::size_t i = 0; i < diff.statements.size() && i < kMostRows; ++i) {
    const StatementDifference& statement = diff.statements[i];
    table.row({shown(statement.what), shown(statement.a), shown(statement.b)});
  }
  if (diff.statements.size() > kMostRows) {
    table.row({"...", "mlnn diff has all", "-"});
  }
}

std::vector<std::string> cellsOf(const Difference& difference) {
  return {differenceText(difference.largest()), differenceText(difference.rootMeanSquare()),
          std::to_string(difference.largestUlps()), generalNumber(difference.cosine(), 6)};
}

void addRow(DataTable& table, std::vector<std::string> cells, const Difference* difference) {
  const std::vector<std::string> more =
      difference != nullptr ? cellsOf(*difference) : std::vector<std::string>(4, "-");
  cells.insert(cells.end(), more.begin(), more.end());
  table.row(cells);
}

void writeNumbers(Markup& page, const ModelDiff& diff) {
  page.element("h3", "Their numbers");
  if (diff.layers.empty()) {
    page.element("p", "There are no layers to compare.");
    return;
  }
  if (diff.sameNumbers()) {
    page.element("p", "The same, to the bit.");
    return;
  }
  if (diff.quantization) {
    page.element("p", std::string("The numbers of ") +
                          (diff.quantization->isOfB ? "the other model" : "this model") +
                          " are the " + (diff.quantization->isOfB ? "ones here" : "other's") +
                          ", rounded by rows to " + describe(diff.quantization->layers) + ".");
  }
  DataTable table(page, "Parameters, value by value",
                  {{"Layer", true},
                   {"Array"},
                   {"Values", true},
                   {"Differ", true},
                   {"Largest", true},
                   {"RMS", true},
                   {"ULP", true},
                   {"Cosine", true}});
  for (std::size_t i = 0; i < diff.layers.size() && i < kMostRows; ++i) {
    const LayerDifference& layer = diff.layers[i];
    const std::string number = std::to_string(layer.layer);
    if (!layer.sameShape) addRow(table, {number, "the shapes differ", "-", "-"}, nullptr);
    for (const ArrayDifference& array : layer.arrays) {
      addRow(table,
             {number, array.array, grouped(array.difference.count()),
              grouped(array.difference.differing())},
             &array.difference);
    }
  }
}

void writeBehaviour(Markup& page, const ModelDiff& diff) {
  if (!diff.behaviour) return;
  const BehaviourDiff& behaviour = *diff.behaviour;
  page.element("h3", "Their behaviour");
  page.element("p", "Over " + counted(behaviour.frames(), "frame") + " of " +
                        counted(behaviour.recordings(), "recording") + "; the same best class in " +
                        grouped(behaviour.sameDecisions()) + " of them (" +
                        shareText(behaviour.sameDecisions(), behaviour.frames()) + ").");
  DataTable table(page, "Differences at each stage of the computation",
                  {{"Stage"},
                   {"Values", true},
                   {"Largest", true},
                   {"RMS", true},
                   {"ULP", true},
                   {"Cosine", true}});
  for (std::size_t i = 0; i < behaviour.stages().size() && i < kMostRows; ++i) {
    const StageDifference& stage = behaviour.stages()[i];
    const bool isComparable = stage.valuesA == stage.valuesB;
    addRow(table,
           {stage.stage, std::to_string(stage.valuesA) +
                             (isComparable ? "" : " | " + std::to_string(stage.valuesB))},
           isComparable ? &stage.difference : nullptr);
  }
}

}  // namespace

void writeDifferences(Markup& page, const PageSubject& subject) {
  const Section section(page, "differences", "Differences");
  writeBeside(page, subject);
  writeStatements(page, *subject.diff);
  writeNumbers(page, *subject.diff);
  writeBehaviour(page, *subject.diff);
}

}  // namespace mlnn
