// parseXml — reads XML strictly, for tests of what the tool writes.
#pragma once

#include <cstddef>
#include <functional>
#include <map>
#include <string>
#include <vector>

namespace mlnn::test {

struct XmlElement {
  std::string name;
  std::map<std::string, std::string> attributes;
  std::string text;  // all of it, that of its children too
  std::vector<XmlElement> children;

  // Calls `use` for the element and all within it, in the order of the text.
  void forEach(const std::function<void(const XmlElement&)>& use) const;

  // Those of that name, itself included.
  std::vector<const XmlElement*> all(const std::string& name) const;
};

// Takes one element, after a document type that says "html" or without one. There are no comments,
// no processing instructions, no sections of CDATA, and of references those to the characters
// & < > and ".
// Throws: std::runtime_error that tells where the text is not well-formed.
XmlElement parseXml(const std::string& text);

}  // namespace mlnn::test
