// Table — rows of cells, printed in columns that line up.
#pragma once

#include <iosfwd>
#include <string>
#include <vector>

namespace mlnn {

class Table {
 public:
  enum class Align { kLeft, kRight };

  // One alignment for each column, and the cells of the heading.
  Table(std::vector<Align> columns, std::vector<std::string> heading);

  // REQUIRES: as many cells as there are columns. Text from files is escaped already.
  void addRow(std::vector<std::string> cells);

  // Prints the heading and the rows, two blanks between columns and none at the end of a
  // line. A column is as wide as its widest cell; a UTF-8 character counts as one.
  void print(std::ostream& out) const;

 private:
  std::vector<Align> columns_;
  std::vector<std::vector<std::string>> rows_;  // the heading first
};

}  // namespace mlnn
