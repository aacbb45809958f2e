#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <sstream>
#include <string>

#include "tests/support/TempFolder.h"
#include "tests/tools/support/ToolProcess.h"
#include "tools/page/PageStyle.h"
#include "tools/page/Png.h"

namespace {

std::string styleText() {
  std::ostringstream out;
  mlnn::Markup page(out);
  mlnn::writeStyle(page);
  return out.str();
}

std::string between(const std::string& text, const std::string& begin, const std::string& end) {
  const std::size_t at = text.find(begin) + begin.size();
  return text.substr(at, text.find(end, at) - at);
}

std::string bytesOf(const std::string& hex) {
  std::string bytes;
  for (std::size_t i = 0; i + 1 < hex.size(); i += 2) {
    bytes += static_cast<char>(std::stoi(hex.substr(i, 2), nullptr, 16));
  }
  return bytes;
}

TEST(PageStyleTest, allowsNothingButItsOwnStyleAndPicturesInThePage) {
  EXPECT_NE(styleText().find("\"Content-Security-Policy\" content=\"default-src 'none'; img-src "
                             "data:; style-src 'sha256-"),
            std::string::npos);
  EXPECT_NE(styleText().find("'; base-uri 'none'; form-action 'none'\"/>"), std::string::npos);
}

// A style whose digest is another one would have no effect.
TEST(PageStyleTest, namesTheDigestOfItsRules) {
  const std::string rules = between(styleText(), "<style>", "</style>");
  ASSERT_GT(rules.size(), 1000u);
  EXPECT_EQ(rules.find_first_of("<&"), std::string::npos);
  const mlnn::test::TempFolder folder;
  folder.write("rules", rules);
  const std::string sum = mlnn::test::runShell("sha256sum rules", folder.path()).out.substr(0, 64);
  EXPECT_EQ(between(styleText(), "'sha256-", "'"), mlnn::base64(bytesOf(sum)));
}

// From the bottom of the page to the text on it, as the eye takes it: at least 4.5.
double shareOfLight(const std::string& hex, std::size_t at) {
  const double value = std::stoi(hex.substr(at, 2), nullptr, 16) / 255.0;
  return value <= 0.04045 ? value / 12.92 : std::pow((value + 0.055) / 1.055, 2.4);
}

double luminance(const std::string& hex) {
  return 0.2126 * shareOfLight(hex, 0) + 0.7152 * shareOfLight(hex, 2) +
         0.0722 * shareOfLight(hex, 4);
}

double contrast(const std::string& a, const std::string& b) {
  const double x = luminance(a);
  const double y = luminance(b);
  return (std::max(x, y) + 0.05) / (std::min(x, y) + 0.05);
}

TEST(PageStyleTest, hasTextOfEnoughContrastInLightAndInDark) {
  const std::string rules = styleText();
  const std::size_t dark = rules.find("prefers-color-scheme: dark");
  for (const std::string& colours : {rules.substr(0, dark), rules.substr(dark)}) {
    const auto colour = [&colours](const std::string& name) {
      return between(colours, "--" + name + ": #", ";");
    };
    for (const char* text : {"ink", "muted", "accent", "good", "bad"}) {
      EXPECT_GE(contrast(colour(text), colour("paper")), 4.5) << text;
    }
    EXPECT_GE(contrast(colour("ink"), colour("warm")), 4.5);
  }
  EXPECT_DOUBLE_EQ(contrast("000000", "ffffff"), 21);
}

}  // namespace
