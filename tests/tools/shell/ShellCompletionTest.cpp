// The completions, as the build made them from the tool's help texts, asked by the shells.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/tools/support/ToolProcess.h"

namespace {

using mlnn::test::contentOf;
using mlnn::test::runShell;
using mlnn::test::ToolResult;

std::string page(const std::string& name) { return std::string(MLNN_HELP_PAGES_DIR) + "/" + name; }

// What bash offers for the last of these words, one offer a line.
std::string completed(const std::vector<std::string>& words) {
  std::string script = "source '" + page("mlnn.bash") + "'; COMP_WORDS=(";
  for (const std::string& word : words) script += " '" + word + "'";
  script += " ); COMP_CWORD=" + std::to_string(words.size() - 1) +
            "; _mlnn; printf \"%s\\n\" \"${COMPREPLY[@]}\"";
  return runShell("bash -c '" +
                  [&script] {
                    std::string quoted;
                    for (const char c : script) quoted += c == '\'' ? "'\\''" : std::string(1, c);
                    return quoted;
                  }() +
                  "'")
      .out;
}

TEST(BashCompletionTest, completesCommands) {
  EXPECT_EQ(completed({"mlnn", "co"}), "convert\ncompare\n");
  EXPECT_EQ(completed({"mlnn", "--v"}), "--version\n");
}

TEST(BashCompletionTest, completesTheOptionsOfACommand) {
  EXPECT_EQ(completed({"mlnn", "convert", "--s"}), "--strict\n--symbol\n");
  EXPECT_EQ(completed({"mlnn", "convert", "in", "out", "--pr"}), "--precision\n");
}

TEST(BashCompletionTest, completesTheWordsThatAnOptionTakes) {
  EXPECT_EQ(completed({"mlnn", "convert", "--to", ""}), "ascii\nbinary\nc-array\n");
  EXPECT_EQ(completed({"mlnn", "run", "--act-fn", "s"}), "sigmoid\nsoftplus\nsilu\n");
}

TEST(BashCompletionTest, leavesFileNamesToTheShell) {
  EXPECT_EQ(completed({"mlnn", "run", ""}), "\n");
  EXPECT_EQ(completed({"mlnn", "run", "model", "-o", "x"}), "\n");
  EXPECT_NE(contentOf(page("mlnn.bash")).find("complete -o default -F _mlnn mlnn\n"),
            std::string::npos);
}

TEST(ZshCompletionTest, isWellFormed) {
  if (runShell("command -v zsh").status != 0) GTEST_SKIP() << "zsh is not installed";
  const ToolResult result = runShell("zsh -n '" + page("_mlnn") + "'");
  EXPECT_EQ(result.status, 0) << result.err;
}

}  // namespace
