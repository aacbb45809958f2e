#include "tools/reports/Table.h"

#include <algorithm>
#include <ostream>
#include <utility>

#include "tools/reports/InkedLine.h"

namespace mlnn {

TableColumns::TableColumns(std::vector<CellAlign> columns)
    : columns_(std::move(columns)), widths_(columns_.size(), 0) {}

void TableColumns::fit(const std::vector<std::string>& cells) {
  for (std::size_t c = 0; c < widths_.size(); ++c) {
    widths_[c] = std::max(widths_[c], shownWidth(cells[c]));
  }
}

void TableColumns::print(const std::vector<std::string>& cells, std::ostream& out) const {
  std::string line;
  for (std::size_t c = 0; c < widths_.size(); ++c) {
    const std::string padding(widths_[c] - std::min(widths_[c], shownWidth(cells[c])), ' ');
    if (c > 0) line += "  ";
    line += columns_[c] == CellAlign::kRight ? padding + cells[c] : cells[c] + padding;
  }
  line.erase(line.find_last_not_of(' ') + 1);
  out << line << "\n";
}

Table::Table(std::vector<Align> columns, std::vector<std::string> heading)
    : columns_(std::move(columns)) {
  addRow(std::move(heading));
}

void Table::addRow(std::vector<std::string> cells) {
  columns_.fit(cells);
  rows_.push_back(std::move(cells));
}

void Table::print(std::ostream& out) const {
  for (const std::vector<std::string>& row : rows_) columns_.print(row, out);
}

}  // namespace mlnn
