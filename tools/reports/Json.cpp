#include "tools/reports/Json.h"

#include <iostream>

namespace mlnn {
namespace {

constexpr std::size_t kIndent = 2;

std::string textOf(const Json& json) {
  return json.dump(kIndent, ' ', true, Json::error_handler_t::replace);
}

std::string lineOf(const Json& json) {
  return json.dump(-1, ' ', true, Json::error_handler_t::replace);
}

}  // namespace

void printJson(const Json& json) { std::cout << textOf(json) << "\n"; }

void printJsonLine(const Json& json) { std::cout << lineOf(json) << std::endl; }

void JsonPrinter::newLine() {
  if (!isLine_) out_ << '\n' << std::string(kIndent * open_.size(), ' ');
}

void JsonPrinter::beginEntry() {
  if (!isBehindKey_ && !open_.empty()) {
    if (!isFirst_) out_ << ',';
    newLine();
  }
  isFirst_ = false;
  isBehindKey_ = false;
}

void JsonPrinter::begin(char bracket) {
  beginEntry();
  out_ << bracket;
  open_ += bracket;
  isFirst_ = true;
}

void JsonPrinter::end() {
  const char closing = open_.back() == '{' ? '}' : ']';
  open_.pop_back();
  if (!isFirst_) newLine();
  out_ << closing;
  isFirst_ = false;
  if (open_.empty()) out_ << "\n";
}

void JsonPrinter::key(const std::string& key) {
  beginEntry();
  out_ << textOf(key) << (isLine_ ? ":" : ": ");
  isBehindKey_ = true;
}

void JsonPrinter::entry(const Json& value) {
  beginEntry();
  if (isLine_) {
    out_ << lineOf(value);
    return;
  }
  const std::string text = textOf(value);
  const std::string margin(kIndent * open_.size(), ' ');
  std::size_t from = 0;
  for (std::size_t to; (to = text.find('\n', from)) != text.npos; from = to + 1) {
    out_ << text.substr(from, to - from) << "\n" << margin;  // no value has a line end in it
  }
  out_ << text.substr(from);
}

void JsonPrinter::member(const std::string& name, const Json& value) {
  key(name);
  entry(value);
}

void JsonPrinter::array(const std::string& name, std::size_t count,
                        const std::function<Json(std::size_t)>& entryAt) {
  key(name);
  beginArray();
  for (std::size_t i = 0; i < count; ++i) entry(entryAt(i));
  end();
}

}  // namespace mlnn
