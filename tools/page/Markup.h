// Markup — writes HTML that is XML as well, in which no text can become markup.
//
// Names of elements and attributes are literals of the program; whatever else is written goes
// through xmlText (tools/reports/XmlText.h). There is no way to write text as it is but `embed`,
// for writers that escape by themselves.
#pragma once

#include <cstddef>
#include <functional>
#include <initializer_list>
#include <ostream>
#include <string>
#include <string_view>
#include <vector>

namespace mlnn {

// A literal of the program: no text from elsewhere becomes one.
class Literal {
 public:
  template <std::size_t N>
  constexpr Literal(const char (&text)[N]) : text_(text) {}  // not explicit: it stands for itself

  constexpr const char* text() const { return text_; }

 private:
  const char* text_;
};

struct Attribute {
  Literal name;
  std::string value;
};

using Attributes = std::initializer_list<Attribute>;

class Markup {
 public:
  // Lifetime: the stream must outlive this object. Whether it could be written is in its state.
  explicit Markup(std::ostream& out) : out_(out) {}

  // Closes an element at the end of a block.
  class [[nodiscard]] Element {
   public:
    explicit Element(Markup& markup) : markup_(markup) {}
    ~Element() { markup_.close(); }
    Element(const Element&) = delete;
    Element& operator=(const Element&) = delete;

   private:
    Markup& markup_;
  };

  // Writes the declaration of a document in HTML, which comes first.
  void documentType();

  // Opens an element, which lasts as long as what is returned.
  Element open(Literal name, Attributes attributes = {});

  void text(std::string_view text);

  // A whole element with nothing or with text in it.
  void empty(Literal name, Attributes attributes = {});
  void element(Literal name, std::string_view text) { element(name, {}, text); }
  void element(Literal name, Attributes attributes, std::string_view text);

  // An element `style` with these rules, which have neither "<" nor "&".
  void style(Literal rules);

  // What writes markup by itself, and escapes.
  void embed(const std::function<void(std::ostream&)>& write) { write(out_); }

 private:
  void begin(Literal name, Attributes attributes);
  void close();

  std::ostream& out_;
  std::vector<const char*> open_;  // names, the innermost last
};

}  // namespace mlnn
