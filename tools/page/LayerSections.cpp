#include "tools/page/LayerSections.h"

#include <algorithm>
#include <optional>
#include <string>
#include <vector>

#include "analysis/CellMap.h"
#include "analysis/ModelSummary.h"
#include "analysis/QuantizationOutlook.h"
#include "analysis/ValueStatistics.h"
#include "layers/LayerArrays.h"
#include "text/Numbers.h"
#include "tools/page/CellPicture.h"
#include "tools/page/PageParts.h"
#include "tools/reports/ModelCharts.h"
#include "tools/reports/SvgChart.h"

namespace mlnn {
namespace {

using Eigen::Index;

constexpr std::size_t kMostRows = 500;     // of a table of layers
constexpr std::size_t kMostPictures = 24;  // of layers
constexpr Index kMostCells = 800000;       // of all pictures of a page
constexpr Index kMostCellsOfOne = 160000;
constexpr Index kMostColumns = 640;
constexpr Index kMostCellRows = 480;
constexpr std::size_t kBins = 60;
constexpr int kDigits = 4;

std::string numberText(double value) { return generalNumber(value, kDigits); }

std::size_t sizeOf(Index index) { return static_cast<std::size_t>(index); }

// Calls `use(number, layer)` for as many layers as a table has, counted from 1.
template <typename Use>
void forEachListed(const MultiLayerNNModel& model, const Use& use) {
  const std::size_t count = std::min(model.layers.size(), kMostRows);
  for (std::size_t i = 0; i < count; ++i) use(i + 1, *model.layers[i]);
}

void tellOfRest(Markup& page, std::size_t shown, std::size_t count, const std::string& what) {
  if (shown >= count) return;
  writeRemark(page, "The first " + std::to_string(shown) + " of " + std::to_string(count) + " " +
                        what + ".");
}

void writeShapes(Markup& page, const MultiLayerNNModel& model) {
  DataTable table(page, "Shapes",
                  {{"Layer", true},
                   {"Kind"},
                   {"Inputs", true},
                   {"Outputs", true},
                   {"Activation"},
                   {"Parameters", true},
                   {"Weights in an image"},
                   {"Bytes there", true}});
  const ModelSummary summary = summaryOf(model);
  forEachListed(model, [&](std::size_t number, const NNLayer&) {
    const LayerSummary& layer = summary.layers[number - 1];
    table.row({std::to_string(number), layer.isBatchNorm ? "batch norm" : "plain",
               grouped(sizeOf(layer.inputs)), grouped(sizeOf(layer.outputs)),
               ActFn::actFnToString(layer.actFn), grouped(layer.parameters),
               layer.imageWeights.form,
               grouped(static_cast<std::size_t>(layer.imageWeights.bytes))});
  });
}

void writeArrays(Markup& page, const MultiLayerNNModel& model, const Watch& watch) {
  DataTable table(page, "Values of the arrays that each layer uses",
                  {{"Layer", true},
                   {"Array"},
                   {"Values", true},
                   {"Smallest", true},
                   {"Largest", true},
                   {"Mean", true},
                   {"Deviation", true},
                   {"Norm", true},
                   {"Zeros", true},
                   {"Not finite", true}});
  forEachListed(model, [&](std::size_t number, const NNLayer& layer) {
    forEachUsedArray(layer, [&](const char* name, const auto& values) {
      const ValueStatistics found = statisticsOf(values, watch);
      table.row({std::to_string(number), name, grouped(found.count), numberText(found.smallest),
                 numberText(found.largest), numberText(found.mean), numberText(found.deviation),
                 numberText(found.norm), shareText(found.zeros, found.count),
                 grouped(found.notFinite)});
    });
    tell(watch, 1);
  });
}

void writeRows(Markup& page, const MultiLayerNNModel& model, const Watch& watch) {
  DataTable table(page, "Lengths of the rows of weights, one row for each unit",
                  {{"Layer", true},
                   {"Units", true},
                   {"Shortest", true},
                   {"Median", true},
                   {"Longest", true},
                   {"Rows without weights", true}});
  forEachListed(model, [&](std::size_t number, const NNLayer& layer) {
    const RowNorms norms = rowNormsOf(layer.weights, watch);
    table.row({std::to_string(number), grouped(sizeOf(layer.weights.rows())),
               numberText(norms.smallest), numberText(norms.median), numberText(norms.largest),
               grouped(norms.zeros)});
  });
}

// "3: 2, 17, 40", at most some of them.
std::string unitsText(const std::vector<Index>& units) {
  constexpr std::size_t kShown = 8;
  if (units.empty()) return "none";
  std::string text = std::to_string(units.size()) + ": ";
  for (std::size_t i = 0; i < units.size() && i < kShown; ++i) {
    text += (i == 0 ? "" : ", ") + std::to_string(units[i] + 1);
  }
  return units.size() > kShown ? text + ", ..." : text;
}

void writeActivity(Markup& page, const RecordingFindings& recordings) {
  const std::vector<LayerActivity> layers = recordings.activity().layers();
  if (layers.empty()) return;
  DataTable table(page, "Units over " + counted(recordings.frames(), "frame"),
                  {{"Layer", true},
                   {"Units", true},
                   {"Smallest", true},
                   {"Largest", true},
                   {"Dead"},
                   {"Saturated"}});
  const std::size_t count = std::min(layers.size(), kMostRows);
  for (std::size_t i = 0; i < count; ++i) {
    const LayerActivity& layer = layers[i];
    table.row({std::to_string(i + 1), grouped(layer.units), numberText(layer.smallest),
               numberText(layer.largest), unitsText(layer.dead), unitsText(layer.saturated)});
  }
}

// --- Pictures ---

// How many cells a picture of weights may have.
struct CellLimits {
  Index rows;
  Index columns;
};

CellLimits limitsFor(std::size_t pictures) {
  const Index cells = std::min(kMostCellsOfOne,
                               kMostCells / static_cast<Index>(std::max<std::size_t>(pictures, 1)));
  const Index columns = std::min(kMostColumns, cells / 150);
  return {std::min(kMostCellRows, cells / columns), columns};
}

// What a picture leaves out, in words.
std::string cellWords(const CellMap& cells) {
  if (cells.isWhole()) return "Each weight is a cell.";
  return "Each cell stands for " + counted(sizeOf(cells.rowsPerCell), "row") + " and " +
         counted(sizeOf(cells.colsPerCell), "column") +
         " of weights and shows the one of the largest magnitude among them.";
}

// Values far from most others would leave these all alike.
double limitOf(const ValueStatistics& weights) {
  const double largest = std::max(weights.largest, -weights.smallest);
  const double limit = std::min(largest, 4 * weights.rootMeanSquare());
  return limit > 0 ? limit : 1;
}

double scaleOf(const CellMap& cells) {
  const double across = 620 / static_cast<double>(cells.values.cols());
  const double down = 320 / static_cast<double>(cells.values.rows());
  const double scale = std::min({across, down, 16.0});
  return scale >= 1 ? static_cast<double>(static_cast<int>(scale)) : 1;
}

void writeWeights(Markup& page, std::size_t number, const NNLayer& layer, const CellLimits& limits,
                  const Watch& watch) {
  const ValueStatistics statistics = statisticsOf(layer.weights, watch);
  const CellMap cells = cellMapOf(layer.weights, limits.rows, limits.columns, watch);
  CellPicture picture;
  picture.description = "The weights of layer " + std::to_string(number) + ", " +
                        std::to_string(layer.weights.rows()) + " rows and " +
                        std::to_string(layer.weights.cols()) + " columns, from " +
                        numberText(statistics.smallest) + " to " + numberText(statistics.largest);
  picture.xLabel = "input (column)";
  picture.yLabel = "output (row)";
  picture.rows = layer.weights.rows();
  picture.columns = layer.weights.cols();
  picture.xScale = picture.yScale = scaleOf(cells);
  picture.limit = limitOf(statistics);
  const auto figure = page.open("figure");
  writeCells(page, cells, picture);
  const auto caption = page.open("figcaption");
  writeShades(page, Shades::kSigned, picture.limit);
  page.element("div", cellWords(cells) +
                          " The colours end at the largest weight or at four times the root mean "
                          "square, whichever is less" +
                          (statistics.notFinite > 0 ? "; cells with values that are not finite are "
                                                      "magenta."
                                                    : "."));
}

void writeLayer(Markup& page, std::size_t number, const NNLayer& layer, const CellLimits& limits,
                const Watch& watch) {
  page.element("h3", "Layer " + std::to_string(number));
  if (layer.weights.size() == 0) {
    page.element("p", "It has no weights to draw.");
    return;
  }
  writeWeights(page, number, layer, limits, watch);
  const Chart chart = weightsChart(layer, number, kBins);
  const auto figure = page.open("figure");
  page.embed([&chart](std::ostream& out) { writeSvgPanel(out, chart); });
}

// What is kept: frames, and recordings where their classes are known.
std::vector<std::string> keptCells(const RoundingTrial& trial, const KeptDecisions& kept) {
  std::vector<std::string> cells = {shareText(kept.sameBestClass, trial.frames())};
  if (trial.knownRecordings() > 0) {
    cells.push_back(grouped(kept.rightRecordings) + " of " + grouped(trial.knownRecordings()));
  }
  return cells;
}

void writeTrial(Markup& page, const RoundingTrial& trial) {
  const bool areKnown = trial.knownRecordings() > 0;
  std::vector<Column> columns = {{"Bits", true}, {"Arithmetic", false}, {"Same class", true}};
  if (areKnown) columns.push_back({"Right", true});
  {
    DataTable table(page, "Decisions with weights that are rounded by rows", columns);
    const auto row = [&](const std::string& bits, const std::string& arithmetic,
                         const std::vector<std::string>& kept) {
      std::vector<std::string> cells = {bits, arithmetic};
      cells.insert(cells.end(), kept.begin(), kept.end());
      table.row(cells);
    };
    row("32", "as it is", keptCells(trial, {trial.frames(), trial.rightRecordings()}));
    for (const int bits : {8, 6, 4}) {
      const auto kept = trial.measure(bits);
      const std::vector<std::string> none(areKnown ? 2 : 1, "-");
      row(std::to_string(bits), "floats", kept ? keptCells(trial, kept->floats) : none);
      row(std::to_string(bits), "integers", kept ? keptCells(trial, kept->integers) : none);
    }
  }
  writeRemark(page, "Over the " + grouped(trial.frames()) +
                        " frames of the recordings: for how many the same class is the best one" +
                        (areKnown ? ", and how many recordings are decided rightly." : "."));
}

}  // namespace

void writeLayers(Markup& page, const MultiLayerNNModel& model, const RecordingFindings* recordings,
                 const Watch& watch) {
  const Section section(page, "layers", "Layers");
  if (model.layers.empty()) {
    page.element("p", "The model has no layers.");
    return;
  }
  writeShapes(page, model);
  writeArrays(page, model, watch);
  writeRows(page, model, watch);
  if (recordings != nullptr) {
    writeActivity(page, *recordings);
    writeRemark(page,
                "A dead unit gave the same value for each frame. A saturated one stayed within a "
                "hundredth of its activation's range of one end (sigmoid, tanh). Units count from "
                "1.");
  }
  tellOfRest(page, kMostRows, model.layers.size(), "layers stand in the tables");
  const std::size_t pictures = std::min(model.layers.size(), kMostPictures);
  const CellLimits limits = limitsFor(pictures);
  for (std::size_t i = 0; i < pictures; ++i) {
    writeLayer(page, i + 1, *model.layers[i], limits, watch);
  }
  tellOfRest(page, kMostPictures, model.layers.size(), "layers are drawn");
}

void writeQuantisation(Markup& page, const MultiLayerNNModel& model, const RoundingTrial* trial,
                       const Watch& watch) {
  const Section section(page, "quantisation", "Quantisation");
  if (model.layers.empty()) {
    page.element("p", "The model has no layers.");
    return;
  }
  {
    DataTable table(page, "Relative error of weights that are rounded by rows",
                    {{"Layer", true}, {"8 bits", true}, {"6 bits", true}, {"4 bits", true}});
    const auto text = [](const std::optional<double>& error) {
      return error ? fixedNumber(100 * *error, 2) + " %" : std::string("-");
    };
    forEachListed(model, [&](std::size_t number, const NNLayer& layer) {
      table.row({std::to_string(number), text(quantizationError(layer, 8, watch)),
                 text(quantizationError(layer, 6, watch)),
                 text(quantizationError(layer, 4, watch))});
    });
  }
  writeRemark(page,
              "The root of squared errors by squared weights, with a scale for each row from its "
              "largest weight. An image then takes a byte a weight, or half a byte up to 4 bits. "
              "What that does to decisions, mlnn quantize --sweep proves on recordings.");
  if (trial != nullptr && trial->decides()) writeTrial(page, *trial);
}

}  // namespace mlnn
