// Tables of the tool: what is accepted is read the same when every field is written in quotes; what
// is refused is refused with a reason.
#include "tools/files/Csv.h"

#include "fuzz/Support.h"
#include "tools/Failure.h"

namespace {

using mlnn::CsvRow;
using mlnn::fuzz::require;

std::string quoted(const std::vector<CsvRow>& rows) {
  std::string text;
  for (const CsvRow& row : rows) {
    for (std::size_t i = 0; i < row.fields.size(); ++i) {
      text += i > 0 ? ",\"" : "\"";
      for (const char c : row.fields[i]) text += c == '"' ? std::string("\"\"") : std::string(1, c);
      text += '"';
    }
    text += "\n";
  }
  return text;
}

bool isEmptyLine(const CsvRow& row) { return row.fields.size() == 1 && row.fields[0].empty(); }

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  std::vector<CsvRow> rows;
  const mlnn::fuzz::Limits limits(size, 160, 65536);
  try {
    rows = mlnn::parseCsv(text, "input");
    limits.check();
  } catch (const mlnn::Failure& failure) {
    limits.check();
    const std::string reason = failure.what();
    require(reason.compare(0, 11, "input, line") == 0, "refused without a reason");
    return 0;
  }
  const std::vector<CsvRow> again = mlnn::parseCsv(quoted(rows), "input");
  require(again.size() == rows.size(), "reads back as other rows");
  std::size_t line = 0;
  for (std::size_t i = 0; i < rows.size(); ++i) {
    require(!rows[i].fields.empty() && !isEmptyLine(rows[i]), "an empty line is a row");
    require(rows[i].line > line, "lines do not ascend");
    line = rows[i].line;
    require(again[i].fields == rows[i].fields, "reads back as other fields");
  }
  return 0;
}
