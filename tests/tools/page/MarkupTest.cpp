#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <type_traits>

#include "tools/page/Markup.h"

namespace {

using mlnn::Literal;
using mlnn::Markup;

static_assert(!std::is_convertible_v<std::string, Literal>);
static_assert(!std::is_convertible_v<const char*, Literal>);

TEST(MarkupTest, closesWhatItOpens) {
  std::ostringstream out;
  Markup markup(out);
  {
    const auto list = markup.open("ul", {{"class", "found"}});
    markup.element("li", "one");
    const auto item = markup.open("li");
    markup.element("a", {{"href", "#two"}}, "two");
    markup.text(", three");
  }
  EXPECT_EQ(out.str(),
            "<ul class=\"found\"><li>one</li>\n<li><a href=\"#two\">two</a>, three</li>\n</ul>\n");
}

TEST(MarkupTest, escapesTextsAndValues) {
  std::ostringstream out;
  Markup markup(out);
  markup.element("td", {{"title", "\"><script>"}}, "</td><script>\x1b");
  EXPECT_EQ(out.str(),
            "<td title=\"&quot;&gt;&lt;script&gt;\">&lt;/td&gt;&lt;script&gt;\\x1b</td>\n");
}

TEST(MarkupTest, writesDocumentTypeStyleAndWhatEscapesItself) {
  std::ostringstream out;
  Markup markup(out);
  markup.documentType();
  markup.empty("meta", {{"charset", "utf-8"}});
  markup.style("a > b { }");
  markup.embed([](std::ostream& stream) { stream << "<svg/>"; });
  EXPECT_EQ(out.str(),
            "<!DOCTYPE html>\n<meta charset=\"utf-8\"/>\n<style>a > b { }</style>\n<svg/>");
}

}  // namespace
