#include "tools/page/PageParts.h"

#include <iterator>
#include <utility>

#include "text/Numbers.h"

namespace mlnn {

DataTable::DataTable(Markup& page, const std::string& caption, std::vector<Column> columns,
                     const char* style)
    : page_(page),
      columns_(std::move(columns)),
      scroll_(page.open(
          "div",
          {{"class", "scroll"}, {"tabindex", "0"}, {"role", "region"}, {"aria-label", caption}})),
      table_(page.open("table", {{"class", style}})) {
  page.element("caption", caption);
  const auto head = page.open("thead");
  const auto row = page.open("tr");
  for (const Column& column : columns_) {
    page.element("th", {{"scope", "col"}, {"class", column.isNumber ? "number" : "text"}},
                 column.name);
  }
}

void DataTable::row(const std::vector<std::string>& cells) {
  const auto row = page_.open("tr");
  for (std::size_t i = 0; i < cells.size(); ++i) {
    const char* const style = columns_[i].isNumber ? "number" : "text";
    if (i == 0) {
      page_.element("th", {{"scope", "row"}, {"class", style}}, cells[i]);
    } else {
      page_.element("td", {{"class", style}}, cells[i]);
    }
  }
}

FactTable::FactTable(Markup& page, const std::string& caption)
    : page_(page),
      scroll_(page.open(
          "div",
          {{"class", "scroll"}, {"tabindex", "0"}, {"role", "region"}, {"aria-label", caption}})),
      table_(page.open("table", {{"class", "facts"}})) {
  page.element("caption", caption);
}

void FactTable::row(const std::string& name, const std::string& value) {
  const auto row = page_.open("tr");
  page_.element("th", {{"scope", "row"}}, name);
  page_.element("td", value);
}

Section::Section(Markup& page, Literal id, const std::string& heading)
    : section_(page.open("section", {{"aria-labelledby", id.text()}})) {
  page.element("h2", {{"id", id.text()}}, heading);
}

void writeRemark(Markup& page, const std::string& text) {
  page.element("p", {{"class", "remark"}}, text);
}

std::string grouped(std::size_t number) {
  constexpr char kNarrowBlank[] = "\u202F";
  std::string digits = std::to_string(number);
  for (std::size_t at = digits.size(); at > 3;) {
    at -= 3;
    digits.insert(at, kNarrowBlank);
  }
  return digits;
}

std::string bytesText(std::size_t bytes) {
  if (bytes < 10000) return grouped(bytes) + " bytes";
  constexpr const char* kUnits[] = {"kB", "MB", "GB"};
  double size = static_cast<double>(bytes) / 1000;
  std::size_t unit = 0;
  while (size >= 999.95 && unit + 1 < std::size(kUnits)) {  // what would be shown as 1000.0
    size /= 1000;
    ++unit;
  }
  return fixedNumber(size, 1) + " " + kUnits[unit] + " (" + grouped(bytes) + " bytes)";
}

std::string shareText(std::size_t part, std::size_t whole) {
  if (whole == 0) return "-";
  return fixedNumber(100 * static_cast<double>(part) / static_cast<double>(whole), 1) + " %";
}

}  // namespace mlnn
