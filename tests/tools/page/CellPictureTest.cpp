#include <gtest/gtest.h>

#include <cmath>
#include <sstream>

#include "tests/support/TestModels.h"
#include "tools/page/CellPicture.h"

namespace {

using mlnn::CellMap;
using mlnn::CellPicture;
using mlnn::Markup;

std::string pictureOf(const CellMap& cells, const CellPicture& picture) {
  std::ostringstream out;
  Markup page(out);
  mlnn::writeCells(page, cells, picture);
  return out.str();
}

// The picture itself, which stands in the attribute href.
std::string bytesOf(const std::string& markup) {
  const std::size_t begin = markup.find("href=\"") + 6;
  return markup.substr(begin, markup.find('"', begin) - begin);
}

CellMap someCells() {
  CellMap cells;
  cells.values = mlnn::test::someValues(4, 6, 1);
  return cells;
}

CellPicture described() {
  CellPicture picture;
  picture.description = "weights <1>";
  picture.rows = 4;
  picture.columns = 6;
  picture.xScale = picture.yScale = 20;
  return picture;
}

TEST(CellPicture, isDescribedForThoseWhoDoNotSeeIt) {
  const std::string markup = pictureOf(someCells(), described());
  EXPECT_NE(markup.find("role=\"img\" aria-label=\"weights &lt;1&gt;\""), std::string::npos);
  EXPECT_EQ(bytesOf(markup).rfind("data:image/png;base64,", 0), 0u);
  for (const char* number : {">1<", ">4<", ">6<"}) {
    EXPECT_NE(markup.find(number), std::string::npos) << number;
  }
}

// Beyond the limit every value has the colour of the end.
TEST(CellPicture, hasItsColoursFromTheLimit) {
  CellMap cells;
  cells.values.setConstant(1, 1, 2);
  CellPicture picture = described();
  const std::string end = bytesOf(pictureOf(cells, picture));
  cells.values(0) = 1;
  EXPECT_EQ(bytesOf(pictureOf(cells, picture)), end);
  cells.values(0) = 0.5f;
  EXPECT_NE(bytesOf(pictureOf(cells, picture)), end);
  picture.limit = 0.5;
  EXPECT_EQ(bytesOf(pictureOf(cells, picture)), end);
  cells.values(0) = std::nanf("");
  EXPECT_NE(bytesOf(pictureOf(cells, picture)), end);
}

TEST(CellPicture, cutsLongNamesBetweenCharacters) {
  CellPicture picture = described();
  picture.rowNames = {"short", std::string(22, 'x') + "\u00E9\u00E9\u00E9", "a",
                      std::string(30, '\x80')};
  picture.markedRow = 2;
  const std::string markup = pictureOf(someCells(), picture);
  EXPECT_NE(markup.find(">" + std::string(22, 'x') + "~<"), std::string::npos) << markup;
  EXPECT_NE(markup.find("class=\"marked\">a<"), std::string::npos);
  EXPECT_NE(markup.find(">~<"), std::string::npos) << markup;  // there is no character at all
}

TEST(CellPicture, hasALegendOfItsShades) {
  for (const bool isSigned : {false, true}) {
    std::ostringstream out;
    Markup page(out);
    mlnn::writeShades(page, isSigned ? mlnn::Shades::kSigned : mlnn::Shades::kPositive, 2.5);
    const std::string low = isSigned ? "-2.5" : "0";
    EXPECT_NE(out.str().find("aria-label=\"colours from " + low + " to 2.5\""), std::string::npos)
        << out.str();
  }
}

}  // namespace
