// What man page and completions have in common: they tell of all that the tool has.
#include <gtest/gtest.h>

#include <CLI/CLI.hpp>
#include <string>

#include "tests/tools/support/ToolProcess.h"
#include "tools/commands/Commands.h"
#include "tools/shell/CommandLineParts.h"

namespace {

using mlnn::test::contentOf;

std::string page(const std::string& name) { return std::string(MLNN_HELP_PAGES_DIR) + "/" + name; }

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
