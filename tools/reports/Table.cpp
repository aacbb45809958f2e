#include "tools/reports/Table.h"

#include <algorithm>
#include <ostream>
#include <utility>

namespace mlnn {
namespace {

// Characters of a UTF-8 text: all bytes but the continuing ones.
std::size_t widthOf(const std::string& text) {
  return static_cast<std::size_t>(
      std::count_if(text.begin(), text.end(), [](char c) { return (c & 0xC0) != 0x80; }));
}

}  // namespace

Table::Table(std::vector<Align> columns, std::vector<std::string> heading)
    : columns_(std::move(columns)), rows_{std::move(heading)} {}

void Table::addRow(std::vector<std::string> cells) { rows_.push_back(std::move(cells)); }

void Table::print(std::ostream& out) const {
  std::vector<std::size_t> widths(columns_.size(), 0);
  for (const std::vector<std::string>& row : rows_) {
    for (std::size_t c = 0; c < widths.size(); ++c) {
      widths[c] = std::max(widths[c], widthOf(row[c]));
    }
  }
  for (const std::vector<std::string>& row : rows_) {
    std::string line;
    for (std::size_t c = 0; c < widths.size(); ++c) {
      const std::string padding(widths[c] - widthOf(row[c]), ' ');
      if (c > 0) line += "  ";
      line += columns_[c] == Align::kRight ? padding + row[c] : row[c] + padding;
    }
    line.erase(line.find_last_not_of(' ') + 1);
    out << line << "\n";
  }
}

}  // namespace mlnn
