#include <gtest/gtest.h>

#include "tools/reports/XmlText.h"

namespace {

using mlnn::xmlText;

TEST(XmlTextTest, hasNoMarkup) {
  EXPECT_EQ(xmlText("<b a=\"c\">&amp;'</b>"), "&lt;b a=&quot;c&quot;&gt;&amp;amp;'&lt;/b&gt;");
}

TEST(XmlTextTest, showsWhatXmlCannotHold) {
  EXPECT_EQ(xmlText(std::string("\0\x1b[2J\xff\xc2\x85", 8)), "\\x00\\x1b[2J\\xff\\xc2\\x85");
  EXPECT_EQ(xmlText("a\xEF\xBF\xBE<\xEF\xBF\xBF"), "a\\u{fffe}&lt;\\u{ffff}");
  EXPECT_EQ(xmlText("\xEF\xBF\xBD"), "\xEF\xBF\xBD");
}

TEST(XmlTextTest, showsWhatTurnsTextAround) { EXPECT_EQ(xmlText("a\u202Eb"), "a\\u{202e}b"); }

}  // namespace
