// Tables in text files: one row a line, fields separated by commas.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace mlnn {

struct CsvRow {
  std::size_t line;  // where it begins, counted from 1
  std::vector<std::string> fields;
};

// Parses a table. A field in double quotes may hold commas and line feeds, and a quote that is
// written twice. Empty lines are skipped, and so are a carriage return before a line feed and a
// byte order mark before everything. `what` names the table in messages.
// Throws: Failure, for a quote that is not closed or has something other than the end of the
// field behind it.
std::vector<CsvRow> parseCsv(const std::string& text, const std::string& what);

}  // namespace mlnn
