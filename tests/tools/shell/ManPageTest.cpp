// The man page, as the build made it from the tool's help texts.
#include <gtest/gtest.h>

#include <string>

#include "tests/tools/support/ToolProcess.h"

namespace {

using mlnn::test::contentOf;
using mlnn::test::runShell;
using mlnn::test::ToolResult;

std::string page() { return std::string(MLNN_HELP_PAGES_DIR) + "/mlnn.1"; }

TEST(ManPageTest, isFormattedWithoutWarnings) {
  if (runShell("command -v groff").status != 0) GTEST_SKIP() << "groff is not installed";
  const ToolResult result = runShell("groff -man -Tutf8 -ww '" + page() + "'");
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.err, "");
}

TEST(ManPageTest, hasTheSectionsOfAPageOfCommands) {
  const std::string text = contentOf(page());
  std::size_t at = 0;
  for (const char* section : {".TH MLNN 1", ".SH NAME", ".SH SYNOPSIS", ".SH COMMANDS"}) {
    const std::size_t next = text.find(section, at);
    ASSERT_NE(next, std::string::npos) << section;
    at = next;
  }
}

}  // namespace
