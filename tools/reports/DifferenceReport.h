// How a Difference is shown in tables and in JSON, the same in every command.
#pragma once

#include <iosfwd>
#include <nlohmann/json_fwd.hpp>
#include <string>
#include <vector>

#include "analysis/Difference.h"
#include "tools/reports/Table.h"

namespace mlnn {

// A difference as text; three digits tell enough of it.
std::string differenceText(double value);

// A table whose last columns tell differences.
class DifferenceTable {
 public:
  // The columns before those, and the cells of their heading.
  DifferenceTable(std::vector<Table::Align> columns, std::vector<std::string> heading);

  // REQUIRES: as many cells as columns were given.
  void addRow(std::vector<std::string> cells, const Difference& difference);

  // The same where there was nothing to compare.
  void addRow(std::vector<std::string> cells);

  void print(std::ostream& out) const { table_.print(out); }

 private:
  Table table_;
};

// Values that are not finite become null when the JSON is printed.
nlohmann::ordered_json differenceJson(const Difference& difference);

}  // namespace mlnn
