// Table — rows of cells, printed in columns that line up.
#pragma once

#include <cstddef>
#include <iosfwd>
#include <string>
#include <vector>

namespace mlnn {

enum class CellAlign { kLeft, kRight };

// Columns that line up: two blanks between them and none at the end of a line. A column is as wide
// as its widest cell; a UTF-8 character counts as one, the sequences of colours as none.
class TableColumns {
 public:
  explicit TableColumns(std::vector<CellAlign> columns);

  // Makes columns as wide as these cells, at least.
  // REQUIRES, as print(): as many cells as there are columns.
  void fit(const std::vector<std::string>& cells);

  // Prints a line. Cells that columns were not made for stand out of them.
  void print(const std::vector<std::string>& cells, std::ostream& out) const;

 private:
  std::vector<CellAlign> columns_;
  std::vector<std::size_t> widths_;
};

class Table {
 public:
  using Align = CellAlign;

  // One alignment for each column, and the cells of the heading.
  Table(std::vector<Align> columns, std::vector<std::string> heading);

  // REQUIRES: as many cells as there are columns. Text from files is escaped already.
  void addRow(std::vector<std::string> cells);

  // Prints the heading and the rows.
  void print(std::ostream& out) const;

 private:
  TableColumns columns_;
  std::vector<std::vector<std::string>> rows_;  // the heading first
};

}  // namespace mlnn
