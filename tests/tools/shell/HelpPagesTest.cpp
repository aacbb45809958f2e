// What man page and completions have in common: they tell of all that the tool has.
#include <gtest/gtest.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <set>
#include <string>
#include <vector>

#include "tests/support/SourceTree.h"
#include "tests/tools/support/ToolProcess.h"
#include "tools/commands/Commands.h"
#include "tools/shell/CommandLineParts.h"

namespace {

using mlnn::test::contentOf;
using mlnn::test::sourcePath;

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

// Their names, in order.
std::string listed(const std::string& heading, const std::set<CLI::Option*>& options) {
  std::vector<std::string> names;
  for (const CLI::Option* option : options) names.push_back(option->get_name());
  std::sort(names.begin(), names.end());
  std::string text;
  for (const std::string& name : names) text += (text.empty() ? heading : " ") + name;
  return text;
}

// An option or argument as a line: its names, the type and the values that it takes, and the rest
// of what was declared of it.
std::string declared(const CLI::Option& option) {
  std::string line = "  " + option.get_name(true, true);
  if (mlnn::takesValue(option)) line += " " + option.get_type_name();
  if (option.get_items_expected_max() > 1) line += "...";
  if (!option.get_default_str().empty()) line += " [" + option.get_default_str() + "]";
  if (option.get_required()) line += ", required";
  if (!option.get_envname().empty()) line += ", from " + option.get_envname();
  return line + listed(", needs ", option.get_needs()) +
         listed(", excludes ", option.get_excludes()) + "\n";
}

TEST(HelpPagesTest, commandsDeclareTheseOptions) {
  mlnn::Tool tool;
  mlnn::addCommands(tool);
  std::string all;
  for (const CLI::App* command : mlnn::commandsOf(tool.app())) {
    all += command->get_name() + "\n";
    for (const CLI::Option* option : mlnn::argumentsOf(*command)) all += declared(*option);
    for (const CLI::Option* option : mlnn::namedOptionsOf(*command)) all += declared(*option);
  }
  EXPECT_EQ(all, contentOf(sourcePath("tests/tools/shell/options.txt")));
}

}  // namespace
