// ConsoleBlocks — the shell sessions that a Markdown page shows.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace mlnn::test {

// A command of a ```console block, without its "$ ", and the output shown below it. Lines
// that begin with "> " continue the command.
struct ConsoleCommand {
  std::size_t line;  // of the page, from 1
  std::string command;
  std::string output;
};

// Returns the commands of all ```console blocks of a page, in order.
// Throws std::runtime_error for a block that does not begin with a command or does not end.
std::vector<ConsoleCommand> consoleCommands(const std::string& page);

// Whether the output is the one shown. A shown line "..." stands for any number of lines.
bool matchesShown(const std::string& shown, const std::string& output);

}  // namespace mlnn::test
