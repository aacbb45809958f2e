#include <gtest/gtest.h>

#include <sstream>

#include "tools/page/PageParts.h"

namespace {

using mlnn::Markup;

TEST(PageParts, groupDigits) {
  EXPECT_EQ(mlnn::grouped(0), "0");
  EXPECT_EQ(mlnn::grouped(999), "999");
  EXPECT_EQ(mlnn::grouped(1234567), "1\u202F234\u202F567");
}

TEST(PageParts, sayBytesInUnits) {
  EXPECT_EQ(mlnn::bytesText(9999), "9\u202F999 bytes");
  EXPECT_EQ(mlnn::bytesText(10000), "10.0 kB (10\u202F000 bytes)");
  EXPECT_EQ(mlnn::bytesText(999949), "999.9 kB (999\u202F949 bytes)");
  EXPECT_EQ(mlnn::bytesText(999950), "1.0 MB (999\u202F950 bytes)");
  EXPECT_EQ(mlnn::bytesText(1000000), "1.0 MB (1\u202F000\u202F000 bytes)");
  EXPECT_EQ(mlnn::bytesText(999960000), "1.0 GB (999\u202F960\u202F000 bytes)");
  EXPECT_EQ(mlnn::bytesText(131200000), "131.2 MB (131\u202F200\u202F000 bytes)");
}

TEST(PageParts, sayShares) {
  EXPECT_EQ(mlnn::shareText(1, 8), "12.5 %");
  EXPECT_EQ(mlnn::shareText(0, 0), "-");
}

TEST(PageParts, areTablesThatCanBeScrolledAndReadAloud) {
  std::ostringstream out;
  Markup page(out);
  {
    mlnn::DataTable table(page, "layers <1>", {{"name"}, {"size", true}});
    table.row({"a&b", "7"});
  }
  EXPECT_EQ(
      out.str(),
      "<div class=\"scroll\" tabindex=\"0\" role=\"region\" aria-label=\"layers &lt;1&gt;\">"
      "<table class=\"data\"><caption>layers &lt;1&gt;</caption>\n<thead><tr>"
      "<th scope=\"col\" class=\"text\">name</th>\n<th scope=\"col\" class=\"number\">size</th>\n"
      "</tr>\n</thead>\n<tr><th scope=\"row\" class=\"text\">a&amp;b</th>\n"
      "<td class=\"number\">7</td>\n</tr>\n</table>\n</div>\n");
}

TEST(PageParts, areFactsAndSections) {
  std::ostringstream out;
  Markup page(out);
  {
    const mlnn::Section section(page, "layers", "All <layers>");
    mlnn::FactTable facts(page, "facts");
    facts.row("softmax", "on");
  }
  mlnn::writeRemark(page, "<b>");
  EXPECT_NE(
      out.str().find("<section aria-labelledby=\"layers\"><h2 id=\"layers\">All &lt;layers&gt;"
                     "</h2>"),
      std::string::npos)
      << out.str();
  EXPECT_NE(out.str().find("<tr><th scope=\"row\">softmax</th>\n<td>on</td>\n</tr>"),
            std::string::npos);
  EXPECT_NE(out.str().find("<p class=\"remark\">&lt;b&gt;</p>"), std::string::npos);
}

}  // namespace
