// The man page and the completions, as the build made them from the tool's help texts.
#include <gtest/gtest.h>

#include <CLI/CLI.hpp>
#include <cstdlib>
#include <string>
#include <vector>

#include "tests/tools/support/ToolProcess.h"
#include "tools/commands/Commands.h"
#include "tools/shell/CommandLineParts.h"

namespace {

using mlnn::test::contentOf;
using mlnn::test::runShell;
using mlnn::test::ToolResult;

std::string page(const std::string& name) { return std::string(MLNN_HELP_PAGES_DIR) + "/" + name; }

bool isThere(const std::string& program) { return runShell("command -v " + program).status == 0; }

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
  if (!isThere("zsh")) GTEST_SKIP() << "zsh is not installed";
  const ToolResult result = runShell("zsh -n '" + page("_mlnn") + "'");
  EXPECT_EQ(result.status, 0) << result.err;
}

TEST(ManPageTest, isFormattedWithoutWarnings) {
  if (!isThere("groff")) GTEST_SKIP() << "groff is not installed";
  const ToolResult result = runShell("groff -man -Tutf8 -ww '" + page("mlnn.1") + "'");
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.err, "");
}

TEST(HelpPagesTest, nameEveryCommandAndOption) {
  mlnn::Tool tool;
  mlnn::addCommands(tool);
  const std::string man = contentOf(page("mlnn.1"));
  const std::string bash = contentOf(page("mlnn.bash"));
  const std::string zsh = contentOf(page("_mlnn"));
  for (const CLI::App* command : mlnn::commandsOf(tool.app())) {
    EXPECT_NE(man.find(".SS mlnn " + command->get_name() + "\n"), std::string::npos);
    for (const CLI::Option* option : mlnn::namedOptionsOf(*command)) {
      for (const std::string& name : mlnn::namesOf(*option)) {
        std::string inRoff;
        for (const char c : name) inRoff += c == '-' ? "\\-" : std::string(1, c);
        EXPECT_NE(man.find(inRoff), std::string::npos) << name;
        EXPECT_NE(bash.find(name), std::string::npos) << name;
        EXPECT_NE(zsh.find("'" + name + "["), std::string::npos) << name;
      }
    }
  }
}

TEST(HelpPagesTest, everyCommandHasExamplesAndExitStatus) {
  mlnn::Tool tool;
  mlnn::addCommands(tool);
  for (const CLI::App* command : mlnn::commandsOf(tool.app())) {
    const std::string footer = command->get_footer();
    const std::size_t examples = footer.find("EXAMPLES\n");
    ASSERT_NE(examples, std::string::npos) << command->get_name();
    EXPECT_NE(footer.find("  mlnn " + command->get_name() + " ", examples), std::string::npos)
        << command->get_name();
    EXPECT_NE(footer.find("EXIT STATUS\n  0"), std::string::npos) << command->get_name();
  }
}

}  // namespace
