#include "tools/reports/DifferenceReport.h"

#include <nlohmann/json.hpp>
#include <utility>

#include "text/Numbers.h"

namespace mlnn {
namespace {

using Cells = std::vector<std::string>;

constexpr int kDigits = 3;
constexpr int kCosineDigits = 6;
constexpr std::size_t kColumns = 4;

std::vector<Table::Align> withColumns(std::vector<Table::Align> columns) {
  columns.insert(columns.end(), kColumns, Table::Align::kRight);
  return columns;
}

Cells joined(Cells cells, const Cells& more) {
  cells.insert(cells.end(), more.begin(), more.end());
  return cells;
}

}  // namespace

std::string differenceText(double value) { return generalNumber(value, kDigits); }

DifferenceTable::DifferenceTable(std::vector<Table::Align> columns, Cells heading)
    : table_(withColumns(std::move(columns)),
             joined(std::move(heading), {"largest", "rms", "ulp", "cosine"})) {}

void DifferenceTable::addRow(Cells cells, const Difference& difference) {
  table_.addRow(joined(std::move(cells), {differenceText(difference.largest()),
                                          differenceText(difference.rootMeanSquare()),
                                          std::to_string(difference.largestUlps()),
                                          generalNumber(difference.cosine(), kCosineDigits)}));
}

void DifferenceTable::addRow(Cells cells) {
  table_.addRow(joined(std::move(cells), Cells(kColumns, "-")));
}

nlohmann::ordered_json differenceJson(const Difference& difference) {
  return {{"values", difference.count()},     {"differing", difference.differing()},
          {"largest", difference.largest()},  {"rms", difference.rootMeanSquare()},
          {"ulps", difference.largestUlps()}, {"cosine", difference.cosine()}};
}

}  // namespace mlnn
