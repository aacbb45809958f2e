#include "tools/files/RecordingLabels.h"

#include <algorithm>
#include <cstddef>
#include <filesystem>
#include <vector>

#include "os/Names.h"
#include "text/Escape.h"
#include "tools/Failure.h"
#include "tools/files/Csv.h"
#include "tools/files/InputFile.h"

namespace mlnn {
namespace {

std::size_t columnOf(const std::vector<CsvRow>& rows, const std::string& column,
                     const std::string& what) {
  if (rows.empty()) throw Failure(what + " is empty; expected a heading");
  const std::vector<std::string>& heading = rows.front().fields;
  const auto found = std::find(heading.begin(), heading.end(), column);
  if (found == heading.end()) {
    throw Failure(what + ", line " + std::to_string(rows.front().line) +
                  ": expected a column called " + inQuotes(column));
  }
  return static_cast<std::size_t>(found - heading.begin());
}

const std::string& field(const CsvRow& row, std::size_t column, const std::string& what) {
  if (column < row.fields.size()) return row.fields[column];
  throw Failure(what + ", line " + std::to_string(row.line) + ": expected " +
                std::to_string(column + 1) + " or more fields but found " +
                std::to_string(row.fields.size()));
}

}  // namespace

RecordingLabels RecordingLabels::read(const std::string& name) {
  RecordingLabels labels(name);
  const std::string what = inputName(name);
  const std::vector<CsvRow> rows = parseCsv(readInput(name), what);
  const std::size_t fileColumn = columnOf(rows, "file", what);
  const std::size_t labelColumn = columnOf(rows, "label", what);
  for (auto row = rows.begin() + 1; row != rows.end(); ++row) {
    const std::string& file = field(*row, fileColumn, what);
    const std::string& label = field(*row, labelColumn, what);
    const auto [known, isNew] = labels.labels_.emplace(file, label);
    if (isNew || known->second == label) continue;
    throw Failure(what + ", line " + std::to_string(row->line) + ": " + inQuotes(file) +
                  " has the label " + inQuotes(known->second) + " already");
  }
  return labels;
}

const std::string& RecordingLabels::of(const std::string& recording) const {
  const std::string file = nameOf(pathOf(recording).filename());
  const auto found = labels_.find(file);
  if (found != labels_.end()) return found->second;
  throw Failure(inputName(name_) + " has no label for " + inQuotes(file));
}

}  // namespace mlnn
