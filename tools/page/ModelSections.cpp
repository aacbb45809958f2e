#include "tools/page/ModelSections.h"

#include <algorithm>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "analysis/ModelBudget.h"
#include "analysis/ModelSummary.h"
#include "analysis/ModelSuspicions.h"
#include "analysis/ValueStatistics.h"
#include "text/Numbers.h"
#include "tools/page/NetworkPicture.h"
#include "tools/page/PageParts.h"
#include "tools/reports/FormatText.h"
#include "tools/reports/ModelCharts.h"
#include "tools/reports/SvgChart.h"

namespace mlnn {
namespace {

constexpr std::size_t kMostBytes = 4000;         // of one text that is shown
constexpr std::size_t kMostBytesOfAll = 200000;  // of all notes or properties

std::string textOf(const DbnFeatureDescription& desc) {
  std::string text;
  desc.serialize(text);
  return text;
}

std::string rangeText(const Eigen::VectorXf& values) {
  const ValueStatistics statistics = statisticsOf(values);
  return generalNumber(statistics.smallest, 6) + " to " + generalNumber(statistics.largest, 6);
}

std::string normalisationText(const MelDeltasNorm& norm) {
  if (norm.minvals.size() == 0 && norm.normvals.size() == 0) return "none";
  return "minvals " + rangeText(norm.minvals) + ", normvals " + rangeText(norm.normvals);
}

std::string fileText(const std::optional<std::uint64_t>& bytes) {
  return bytes ? bytesText(static_cast<std::size_t>(*bytes)) : "not possible";
}

// Texts of any length that the page shows up to a bound.
class Texts {
 public:
  std::string shown(const std::string& text) {
    const std::size_t most = std::min(kMostBytes, kMostBytesOfAll - shown_);
    shown_ += std::min(text.size(), most);
    if (text.size() <= most) return text;
    std::size_t end = most;
    while (end > 0 && (text[end] & 0xC0) == 0x80) --end;  // not inside a UTF-8 character
    return text.substr(0, end) + " ... (" + std::to_string(text.size()) + " bytes in all)";
  }

  bool isFull() const { return shown_ >= kMostBytesOfAll; }

 private:
  std::size_t shown_ = 0;
};

}  // namespace

void writeAbout(Markup& page, const ModelFile& file) {
  const MultiLayerNNModel& model = file.model;
  const ModelSummary summary = summaryOf(model);
  const Section section(page, "about", "About");
  FactTable facts(page, "What is in the file");
  facts.row("Format", formatText(file));
  facts.row("File", bytesText(file.length));
  facts.row("Inputs", grouped(static_cast<std::size_t>(model.numInputs())));
  facts.row("Outputs", grouped(static_cast<std::size_t>(model.numOutputs())) +
                           (model.useSoftmax ? ", through a softmax" : ", without a softmax"));
  facts.row("Layers", grouped(summary.layers.size()));
  facts.row("Parameters", grouped(summary.parameters));
  facts.row("Features", textOf(model.featureDesc));
  facts.row("Normalisation", normalisationText(model.deltasNorm));
  facts.row("Checksum", std::to_string(model.checksum()));
}

void writeNetworkSection(Markup& page, const MultiLayerNNModel& model) {
  const Section section(page, "network", "Network");
  const auto figure = page.open("figure");
  writeNetwork(page, model);
  page.element("figcaption",
               "Widths grow with the number of values, each doubling by as much. Details of the "
               "layers stand in the table of the layers.");
}

void writeSuspicions(Markup& page, const ModelFile& file) {
  constexpr std::size_t kMost = 200;
  const Section section(page, "suspicions", "Suspicions");
  const std::vector<Suspicion> found = suspicionsOf(file);
  if (found.empty()) {
    page.element("p", "None: nothing in the model looks as if it could not be meant.");
    return;
  }
  const auto list = page.open("ul", {{"class", "found"}});
  for (std::size_t i = 0; i < found.size() && i < kMost; ++i) page.element("li", found[i].text);
  if (found.size() > kMost) {
    page.element("li", "and " + std::to_string(found.size() - kMost) + " more");
  }
}

void writeTraining(Markup& page, const MultiLayerNNModel& model) {
  const Section section(page, "training", "Training");
  const std::vector<Chart> charts = curvesOf(model);
  if (charts.empty()) {
    page.element("p", "The model has no curves of its training.");
    return;
  }
  const auto beside = page.open("div", {{"class", "beside"}});
  for (const Chart& chart : charts) {
    const auto figure = page.open("figure");
    page.embed([&chart](std::ostream& out) { writeSvgPanel(out, chart); });
  }
}

void writeNeeds(Markup& page, const MultiLayerNNModel& model) {
  const ModelBudget budget = budgetOf(model);
  const FileSizes sizes = fileSizesOf(model);
  const auto bytes = [](std::uint64_t count) { return bytesText(static_cast<std::size_t>(count)); };
  const auto number = [](std::uint64_t count) { return grouped(static_cast<std::size_t>(count)); };
  const Section section(page, "needs", "Size and work");
  FactTable facts(page, "What the model needs of whoever runs it");
  facts.row("Image file", fileText(sizes.image));
  facts.row("Image weights", budget.weightForms);
  if (!budget.quantized.empty()) facts.row("Quantised", budget.quantized);
  facts.row("Text file", fileText(sizes.text));
  facts.row("Parameters", bytes(budget.parameterBytes));
  facts.row("Read by a pass", bytes(budget.readBytes));
  facts.row("Working memory", bytes(budget.workingBytes));
  facts.row("Multiply-adds", number(budget.multiplyAdds) + " a frame");
  facts.row("Activations", number(budget.activations) + " a frame");
}

void writeProperties(Markup& page, const MultiLayerNNModel& model) {
  const Section section(page, "properties", "Properties");
  if (model.props.empty()) {
    page.element("p", "The model has no properties.");
    return;
  }
  FactTable facts(page, "Names and values as the file has them");
  Texts texts;
  for (const auto& [name, value] : model.props) {
    if (texts.isFull()) {
      facts.row("...", "more than fits onto a page: mlnn info --json has all");
      return;
    }
    facts.row(texts.shown(name), texts.shown(value));
  }
}

void writeNotes(Markup& page, const MultiLayerNNModel& model) {
  const std::vector<std::string>& lines = model.notes.lines;
  const Section section(page, "notes", "Notes");
  if (lines.empty()) {
    page.element("p", "The model has no notes.");
    return;
  }
  DataTable table(page, "The lines of its history, oldest first", {{"Line", true}, {"Note"}},
                  "texts");
  Texts texts;
  for (std::size_t i = 0; i < lines.size(); ++i) {
    if (texts.isFull()) {
      table.row({"...", counted(lines.size() - i, "line") + " more: mlnn info --json has all"});
      return;
    }
    table.row({std::to_string(i + 1), texts.shown(lines[i])});
  }
}

}  // namespace mlnn
