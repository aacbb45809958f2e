// The parts that the sections of a page are made of.
#pragma once

#include <cstddef>
#include <initializer_list>
#include <string>
#include <vector>

#include "tools/page/Markup.h"

namespace mlnn {

struct Column {
  const char* name;
  bool isNumber = false;
};

// A table of columns with a heading, which can be scrolled where it is wide.
class DataTable {
 public:
  DataTable(Markup& page, const std::string& caption, std::vector<Column> columns,
            const char* style = "data");

  // The first cell is the heading of the row.
  void row(const std::vector<std::string>& cells);

 private:
  Markup& page_;
  std::vector<Column> columns_;
  Markup::Element scroll_;
  Markup::Element table_;
};

// A table of names and what there is to say of each.
class FactTable {
 public:
  FactTable(Markup& page, const std::string& caption);

  void row(const std::string& name, const std::string& value);

 private:
  Markup& page_;
  Markup::Element scroll_;
  Markup::Element table_;
};

// A section with its heading and the place that the table of contents points to.
class Section {
 public:
  Section(Markup& page, Literal id, const std::string& heading);

 private:
  Markup::Element section_;
};

void writeRemark(Markup& page, const std::string& text);

// "1 234 567": blanks between thousands that do not break a line.
std::string grouped(std::size_t number);

// "131.2 MB", and the bytes themselves where they are few.
std::string bytesText(std::size_t bytes);

// "12.5 %" of so many; "-" of none.
std::string shareText(std::size_t part, std::size_t whole);

}  // namespace mlnn
