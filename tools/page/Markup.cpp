#include "tools/page/Markup.h"

#include <algorithm>
#include <iterator>

#include "tools/reports/XmlText.h"

namespace mlnn {
namespace {

// Elements that stand within a line of text, where a line feed would be a blank.
bool isWithinLine(std::string_view name) {
  constexpr std::string_view kNames[] = {"a", "code", "span", "strong"};
  return std::find(std::begin(kNames), std::end(kNames), name) != std::end(kNames);
}

const char* lineEnd(const char* name) { return isWithinLine(name) ? "" : "\n"; }

}  // namespace

void Markup::documentType() { out_ << "<!DOCTYPE html>\n"; }

void Markup::begin(Literal name, Attributes attributes) {
  out_ << '<' << name.text();
  for (const Attribute& attribute : attributes) {
    out_ << ' ' << attribute.name.text() << "=\"" << xmlText(attribute.value) << '"';
  }
}

Markup::Element Markup::open(Literal name, Attributes attributes) {
  open_.push_back(name.text());
  begin(name, attributes);
  out_ << '>';
  return Element(*this);
}

void Markup::close() {
  out_ << "</" << open_.back() << '>' << lineEnd(open_.back());
  open_.pop_back();
}

void Markup::text(std::string_view text) { out_ << xmlText(text); }

void Markup::empty(Literal name, Attributes attributes) {
  begin(name, attributes);
  out_ << "/>" << lineEnd(name.text());
}

void Markup::element(Literal name, Attributes attributes, std::string_view text) {
  const Element element = open(name, attributes);
  this->text(text);
}

void Markup::style(Literal rules) { out_ << "<style>" << rules.text() << "</style>\n"; }

}  // namespace mlnn
