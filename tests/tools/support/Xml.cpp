#include "tests/tools/support/Xml.h"

#include <stdexcept>
#include <string_view>
#include <utility>

namespace mlnn::test {
namespace {

constexpr std::string_view kDocumentType = "<!DOCTYPE html>\n";

class Parser {
 public:
  explicit Parser(std::string_view text) : rest_(text), length_(text.size()) {}

  XmlElement run() {
    if (startsWith(kDocumentType)) rest_.remove_prefix(kDocumentType.size());
    XmlElement root = element();
    skipBlanks();
    if (!rest_.empty()) fail("more than one element");
    return root;
  }

 private:
  [[noreturn]] void fail(const std::string& what) const {
    throw std::runtime_error(what + " at byte " + std::to_string(length_ - rest_.size()) + ": " +
                             std::string(rest_.substr(0, 60)));
  }

  bool startsWith(std::string_view prefix) const {
    return rest_.substr(0, prefix.size()) == prefix;
  }

  void expect(std::string_view what) {
    if (!startsWith(what)) fail("expected " + std::string(what));
    rest_.remove_prefix(what.size());
  }

  void skipBlanks() {
    while (!rest_.empty() && (rest_[0] == ' ' || rest_[0] == '\n')) rest_.remove_prefix(1);
  }

  std::string name() {
    std::size_t end = 0;
    const auto isPart = [](char c) {
      return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-';
    };
    while (end < rest_.size() && isPart(rest_[end])) ++end;
    if (end == 0) fail("expected a name");
    std::string result(rest_.substr(0, end));
    rest_.remove_prefix(end);
    return result;
  }

  char reference() {
    constexpr std::pair<std::string_view, char> kReferences[] = {
        {"&amp;", '&'}, {"&lt;", '<'}, {"&gt;", '>'}, {"&quot;", '"'}};
    for (const auto& [written, character] : kReferences) {
      if (!startsWith(written)) continue;
      rest_.remove_prefix(written.size());
      return character;
    }
    fail("unknown reference");
  }

  // Text up to one of these two characters, of which neither may be missing.
  std::string textUpTo(char end, char forbidden) {
    std::string result;
    while (!rest_.empty() && rest_[0] != end) {
      const char c = rest_[0];
      if (c == forbidden) fail("markup within a text");
      if (static_cast<unsigned char>(c) < 0x20 && c != '\n') fail("a control character");
      if (startsWith("\xEF\xBF\xBE") || startsWith("\xEF\xBF\xBF")) fail("no character");
      if (c == '&') {
        result += reference();
      } else {
        result += c;
        rest_.remove_prefix(1);
      }
    }
    if (rest_.empty()) fail("unfinished text");
    return result;
  }

  void attributes(XmlElement& element) {
    while (startsWith(" ")) {
      expect(" ");
      const std::string key = name();
      expect("=\"");
      if (!element.attributes.emplace(key, textUpTo('"', '<')).second) fail("attribute twice");
      expect("\"");
    }
  }

  XmlElement element() {
    expect("<");
    XmlElement result;
    result.name = name();
    attributes(result);
    if (startsWith("/>")) {
      expect("/>");
      return result;
    }
    expect(">");
    while (!startsWith("</")) {
      result.text += textUpTo('<', '\0');
      if (startsWith("</")) break;
      result.children.push_back(element());
      result.text += result.children.back().text;
    }
    expect("</" + result.name + ">");
    return result;
  }

  std::string_view rest_;
  std::size_t length_;
};

}  // namespace

void XmlElement::forEach(const std::function<void(const XmlElement&)>& use) const {
  use(*this);
  for (const XmlElement& child : children) child.forEach(use);
}

std::vector<const XmlElement*> XmlElement::all(const std::string& wanted) const {
  std::vector<const XmlElement*> found;
  forEach([&](const XmlElement& element) {
    if (element.name == wanted) found.push_back(&element);
  });
  return found;
}

XmlElement parseXml(const std::string& text) { return Parser(text).run(); }

}  // namespace mlnn::test
