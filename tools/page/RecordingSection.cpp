#include "tools/page/RecordingSection.h"

#include <algorithm>
#include <cmath>
#include <set>
#include <string>
#include <vector>

#include "text/Numbers.h"
#include "tools/page/CellPicture.h"
#include "tools/page/PageParts.h"

namespace mlnn {
namespace {

using Eigen::Index;

constexpr std::size_t kMostRows = 500;    // of the table of all recordings
constexpr std::size_t kMostNamed = 10;    // of the slowest, and of the least sure
constexpr std::size_t kMostClasses = 40;  // of a matrix
constexpr std::size_t kMostConfusions = 50;

std::string knownText(const RecordingFindings& found, const RecordingFinding& recording) {
  return recording.known ? classText(found, *recording.known) : "-";
}

std::string judgement(const RecordingFinding& recording) {
  if (!recording.known) return "-";
  return recording.isWrong() ? "wrong" : "right";
}

std::string settledText(const RecordingFinding& recording) {
  return recording.decision.best < 0 ? "-" : std::to_string(recording.decision.settledAt);
}

// --- Confusion ---

// The style of a cell: the more of its row, the deeper.
const char* shadeOf(std::size_t count, std::size_t ofRow, bool isRight) {
  if (count == 0) return "none";
  const bool isMuch = 2 * count > ofRow;
  if (isRight) return isMuch ? "r2" : "r1";
  return isMuch ? "w2" : "w1";
}

void writeMatrixRow(Markup& page, const RecordingFindings& found, Index known,
                    const std::vector<Index>& columns) {
  const Confusion& confusion = found.confusion();
  std::size_t ofRow = 0;
  for (const Index decided : columns) ofRow += confusion.of(known, decided);
  const auto row = page.open("tr");
  page.element("th", {{"scope", "row"}}, classText(found, known));
  for (const Index decided : columns) {
    const std::size_t count = confusion.of(known, decided);
    page.element("td", {{"class", shadeOf(count, ofRow, known == decided)}},
                 count == 0 ? "\u00B7" : std::to_string(count));
  }
}

void writeMatrix(Markup& page, const RecordingFindings& found, const std::vector<Index>& classes) {
  const std::vector<Index> columns = decidedClasses(found.confusion());
  const auto scroll = page.open("div", {{"class", "scroll"},
                                        {"tabindex", "0"},
                                        {"role", "region"},
                                        {"aria-label", "Confusion matrix"}});
  const auto table = page.open("table", {{"class", "confusion"}});
  page.element("caption", "Rows: what recordings are. Columns: what they were taken for.");
  {
    const auto head = page.open("thead");
    const auto row = page.open("tr");
    page.element("th", {{"scope", "col"}}, "is / taken for");
    for (const Index decided : columns) {
      page.element("th", {{"scope", "col"}}, classText(found, decided));
    }
  }
  const auto body = page.open("tbody");
  for (const Index known : classes) writeMatrixRow(page, found, known, columns);
}

// Of many classes, those that are taken for others most often.
void writeMistakes(Markup& page, const RecordingFindings& found) {
  std::vector<std::pair<Confusion::Pair, std::size_t>> mistakes;
  for (const auto& entry : found.confusion().counts()) {
    if (entry.first.first != entry.first.second) mistakes.push_back(entry);
  }
  std::stable_sort(mistakes.begin(), mistakes.end(),
                   [](const auto& a, const auto& b) { return a.second > b.second; });
  DataTable table(page, "The most frequent mistakes",
                  {{"Is"}, {"Taken for"}, {"Recordings", true}});
  for (std::size_t i = 0; i < mistakes.size() && i < kMostConfusions; ++i) {
    const auto& [pair, count] = mistakes[i];
    table.row({classText(found, pair.first), classText(found, pair.second), grouped(count)});
  }
}

void writeConfusion(Markup& page, const RecordingFindings& found) {
  if (found.confusion().recordings() == 0) return;
  page.element("h3", "Confusion");
  if (hasConfusionTable(found.confusion())) {
    writeMatrix(page, found, knownClasses(found.confusion()));
  } else {
    writeMistakes(page, found);
  }
}

// --- Tables ---

void writeRow(DataTable& table, const RecordingFindings& found, const RecordingFinding& recording) {
  table.row({recording.name, std::to_string(recording.frames), knownText(found, recording),
             classText(found, recording.decision.best), judgement(recording),
             fixedNumber(recording.decision.meanPosterior, 4),
             classText(found, recording.decision.second), fixedNumber(recording.decision.margin, 3),
             settledText(recording)});
}

void writeTable(Markup& page, const RecordingFindings& found, const std::string& caption,
                const std::vector<std::size_t>& numbers, std::size_t most) {
  DataTable table(page, caption,
                  {{"Recording"},
                   {"Frames", true},
                   {"Is"},
                   {"Decided"},
                   {"Judgement"},
                   {"Mean posterior", true},
                   {"Next"},
                   {"Margin", true},
                   {"Settled at frame", true}});
  for (std::size_t i = 0; i < numbers.size() && i < most; ++i) {
    writeRow(table, found, found.recordings()[numbers[i]]);
  }
}

void writeTables(Markup& page, const RecordingFindings& found) {
  page.element("h3", "The least sure");
  writeTable(page, found, "Wrong ones first, then those of the smallest margin", found.bySureness(),
             kMostNamed);
  page.element("h3", "The slowest");
  writeTable(page, found, "Those first whose decision settled last", found.bySlowness(),
             kMostNamed);
  page.element("h3", "All recordings");
  std::vector<std::size_t> all(found.recordings().size());
  for (std::size_t i = 0; i < all.size(); ++i) all[i] = i;
  writeTable(page, found, "In the order in which they were given", all, kMostRows);
  if (all.size() > kMostRows) {
    writeRemark(page, "The first " + std::to_string(kMostRows) + " of " +
                          std::to_string(all.size()) + " stand in the table.");
  }
  writeRemark(page,
              "Margin: how far the sum of logarithms of the posteriors is above that of the next "
              "class, for a frame. Settled: the first frame, counted from 0, from which on the "
              "frames so far decide as all do.");
}

// --- Pictures ---

std::string outputCellWords(const CellMap& cells) {
  if (cells.isWhole()) return "";
  return " Each cell stands for " + counted(static_cast<std::size_t>(cells.rowsPerCell), "class") +
         (cells.rowsPerCell > 1 ? "es" : "") + " and " +
         counted(static_cast<std::size_t>(cells.colsPerCell), "frame") +
         " and shows the value of the largest magnitude.";
}

std::string captionOf(const RecordingFindings& found, const RecordingFinding& recording) {
  std::string text = recording.name;
  if (found.arePosteriors()) text += ": decided " + classText(found, recording.decision.best);
  if (recording.known) text += ", is " + classText(found, *recording.known);
  if (recording.isWrong()) text += " - wrong";
  return text + "." + outputCellWords(*recording.outputs);
}

// Outputs that are no posteriors have colours up to the largest of the recording.
double limitOf(const RecordingFindings& found, const CellMap& cells) {
  if (found.arePosteriors()) return 1;
  double limit = 0;
  for (Index i = 0; i < cells.values.size(); ++i) {
    const double value = std::fabs(static_cast<double>(cells.values.data()[i]));
    if (value > limit) limit = value;
  }
  return limit > 0 ? limit : 1;
}

void writePicture(Markup& page, const RecordingFindings& found, const RecordingFinding& recording) {
  const CellMap& cells = *recording.outputs;
  if (cells.values.size() == 0) return;
  CellPicture picture;
  picture.description = "Outputs over time of " + captionOf(found, recording);
  picture.xLabel = "frame";
  picture.yLabel = "class";
  picture.first = 0;
  picture.rows = static_cast<Index>(found.labels().size());
  picture.columns = recording.frames;
  const double across = std::floor(380 / static_cast<double>(cells.values.cols()));
  picture.xScale = std::clamp(across, 1.0, 12.0);
  picture.yScale = cells.rowsPerCell == 1 ? 15 : 6;
  picture.shades = found.arePosteriors() ? Shades::kPositive : Shades::kSigned;
  picture.limit = limitOf(found, cells);
  if (cells.rowsPerCell == 1) {
    picture.rowNames = found.labels();
    picture.markedRow = recording.known.value_or(-1);
  }
  const auto figure = page.open("figure");
  writeCells(page, cells, picture);
  page.element("figcaption", captionOf(found, recording));
}

void writePictures(Markup& page, const RecordingFindings& found) {
  page.element("h3", found.arePosteriors() ? "Posteriors over time" : "Outputs over time");
  if (found.arePosteriors()) writeShades(page, Shades::kPositive, 1);
  writeRemark(page, std::string("The class that a recording is stands out among the names.") +
                        (found.recordings().size() > RecordingFindings::kMostPictures
                             ? " Shown are those decided wrongly, then the least sure."
                             : ""));
  const auto beside = page.open("div", {{"class", "beside"}});
  for (const RecordingFinding& recording : found.recordings()) {
    if (recording.outputs) writePicture(page, found, recording);
  }
}

void writeAccuracy(Markup& page, const RecordingFindings& found) {
  FactTable facts(page, "What the model was run over");
  facts.row("Recordings", grouped(found.recordings().size()));
  facts.row("Frames", grouped(found.frames()));
  const Confusion& confusion = found.confusion();
  if (confusion.recordings() == 0) return;
  facts.row("Accuracy", shareText(confusion.right(), confusion.recordings()) + ": " +
                            grouped(confusion.right()) + " of " +
                            counted(confusion.recordings(), "recording") + " right");
}

}  // namespace

std::string classText(const RecordingFindings& found, Index number) {
  return number < 0 ? "?" : found.labels()[static_cast<std::size_t>(number)];
}

bool hasConfusionTable(const Confusion& confusion) {
  return confusion.recordings() > 0 && knownClasses(confusion).size() <= kMostClasses;
}

std::vector<Index> knownClasses(const Confusion& confusion) {
  std::set<Index> classes;
  for (const auto& [pair, count] : confusion.counts()) {
    classes.insert(pair.first);
    if (pair.second >= 0) classes.insert(pair.second);
  }
  return {classes.begin(), classes.end()};
}

std::vector<Index> decidedClasses(const Confusion& confusion) {
  std::vector<Index> classes = knownClasses(confusion);
  const bool anyUndecided = std::any_of(confusion.counts().begin(), confusion.counts().end(),
                                        [](const auto& entry) { return entry.first.second < 0; });
  if (anyUndecided) classes.push_back(-1);
  return classes;
}

void writeRecordings(Markup& page, const RecordingFindings& found) {
  const Section section(page, "recordings", "Recordings");
  writeAccuracy(page, found);
  writeConfusion(page, found);
  if (found.arePosteriors()) writeTables(page, found);
  writePictures(page, found);
}

}  // namespace mlnn
