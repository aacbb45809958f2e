#include "tools/files/Csv.h"

#include <algorithm>

#include "tools/Failure.h"

namespace mlnn {
namespace {

constexpr char kByteOrderMark[] = "\xEF\xBB\xBF";

class Parser {
 public:
  Parser(const std::string& text, const std::string& what) : text_(text), what_(what) {
    if (text_.compare(0, sizeof kByteOrderMark - 1, kByteOrderMark) == 0) {
      next_ = sizeof kByteOrderMark - 1;
    }
  }

  bool atEnd() const { return next_ == text_.size(); }

  CsvRow row() {
    CsvRow row{line_, {}};
    for (;;) {
      row.fields.push_back(text_.compare(next_, 1, "\"") == 0 ? quotedField() : plainField());
      if (skip(",")) continue;
      if (atEnd() || skip("\n") || skip("\r\n")) return row;
      fail("expected a comma or the end of the line behind a quoted field");
    }
  }

 private:
  // Moves on behind `expected` if that comes next.
  bool skip(const std::string& expected) {
    if (text_.compare(next_, expected.size(), expected) != 0) return false;
    next_ += expected.size();
    if (expected.back() == '\n') ++line_;
    return true;
  }

  std::string plainField() {
    const std::size_t end = std::min(text_.find_first_of(",\n", next_), text_.size());
    std::string field = text_.substr(next_, end - next_);
    next_ = end;
    const bool endsLine = atEnd() || text_[end] == '\n';
    if (endsLine && !field.empty() && field.back() == '\r') field.pop_back();
    return field;
  }

  std::string quotedField() {
    std::string field;
    skip("\"");
    while (!atEnd()) {
      if (skip("\"\"")) {
        field += '"';
      } else if (skip("\"")) {
        return field;
      } else {
        if (text_[next_] == '\n') ++line_;
        field += text_[next_++];
      }
    }
    fail("expected a closing quote");
  }

  [[noreturn]] void fail(const std::string& why) const {
    throw Failure(what_ + ", line " + std::to_string(line_) + ": " + why);
  }

  const std::string& text_;
  const std::string& what_;
  std::size_t next_ = 0;
  std::size_t line_ = 1;
};

}  // namespace

std::vector<CsvRow> parseCsv(const std::string& text, const std::string& what) {
  std::vector<CsvRow> rows;
  Parser parser(text, what);
  while (!parser.atEnd()) {
    CsvRow row = parser.row();
    const bool isEmptyLine = row.fields.size() == 1 && row.fields[0].empty();
    if (!isEmptyLine) rows.push_back(std::move(row));
  }
  return rows;
}

}  // namespace mlnn
