#include "tools/page/RecordingCharts.h"

#include <algorithm>
#include <filesystem>
#include <string>

#include "os/Names.h"
#include "tools/page/RecordingSection.h"

namespace mlnn {
namespace {

using Eigen::Index;

// The classes that a row of cells stands for.
std::string rowName(const RecordingFindings& found, Index row, Index rowsPerCell) {
  const Index first = row * rowsPerCell;
  if (rowsPerCell == 1) return classText(found, first);
  const Index last = std::min(first + rowsPerCell, static_cast<Index>(found.labels().size())) - 1;
  return std::to_string(first) + "-" + std::to_string(last);
}

std::string remarkOf(const RecordingFindings& found, const RecordingFinding& recording) {
  std::string remark = "decided " + classText(found, recording.decision.best);
  if (recording.known) remark += ", is " + classText(found, *recording.known);
  const CellMap& cells = *recording.outputs;
  if (cells.isWhole()) return remark;
  return remark + "; cells show the largest of " +
         std::to_string(cells.rowsPerCell * cells.colsPerCell);
}

Chart posteriorChart(const RecordingFindings& found, const RecordingFinding& recording) {
  const CellMap& cells = *recording.outputs;
  Chart chart;
  chart.kind = Chart::Kind::kMap;
  chart.title = nameOf(pathOf(recording.name).filename());
  chart.remark = remarkOf(found, recording);
  chart.xLabel = "frame";
  chart.yLabel = "class";
  chart.xHigh = static_cast<double>(recording.frames);
  chart.columns = static_cast<std::size_t>(cells.values.cols());
  const Index right = recording.known.value_or(recording.decision.best);
  if (right >= 0) {
    chart.rightRows.assign(chart.columns, static_cast<std::size_t>(right / cells.rowsPerCell));
  }
  for (Index row = 0; row < cells.values.rows(); ++row) {
    chart.rowNames.push_back(rowName(found, row, cells.rowsPerCell));
    for (Index c = 0; c < cells.values.cols(); ++c) {
      chart.values.push_back(static_cast<double>(cells.values(row, c)));
    }
  }
  return chart;
}

Chart confusionChart(const RecordingFindings& found) {
  const Confusion& confusion = found.confusion();
  Chart chart;
  chart.kind = Chart::Kind::kMap;
  chart.title = "confusion";
  chart.remark = std::to_string(confusion.right()) + " of " +
                 std::to_string(confusion.recordings()) + " right";
  chart.xLabel = "taken for";
  chart.yLabel = "is";
  const std::vector<Index> known = knownClasses(confusion);
  const std::vector<Index> decided = decidedClasses(confusion);
  chart.columns = decided.size();
  for (const Index column : decided) {
    chart.columnNames.push_back(classText(found, column));
    const auto right = std::find(known.begin(), known.end(), column) - known.begin();
    chart.rightRows.push_back(static_cast<std::size_t>(right));
  }
  for (const Index row : known) {
    chart.rowNames.push_back(classText(found, row));
    for (const Index column : decided) {
      chart.values.push_back(static_cast<double>(confusion.of(row, column)));
    }
  }
  return chart;
}

}  // namespace

std::vector<Chart> chartsOf(const RecordingFindings& found) {
  std::vector<Chart> charts;
  for (const RecordingFinding& recording : found.recordings()) {
    const bool isDrawn = recording.outputs && recording.outputs->values.size() > 0;
    if (isDrawn) charts.push_back(posteriorChart(found, recording));
  }
  if (hasConfusionTable(found.confusion())) charts.push_back(confusionChart(found));
  return charts;
}

}  // namespace mlnn
