#include "tests/docs/ConsoleBlocks.h"

#include <sstream>
#include <stdexcept>

namespace mlnn::test {
namespace {

using Lines = std::vector<std::string>;

constexpr char kBlockStart[] = "```console";
constexpr char kBlockEnd[] = "```";
constexpr char kPrompt[] = "$ ";
constexpr char kContinuation[] = "> ";
constexpr char kAnyLines[] = "...";

bool startsWith(const std::string& text, const std::string& prefix) {
  return text.compare(0, prefix.size(), prefix) == 0;
}

Lines linesOf(const std::string& text) {
  Lines lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

[[noreturn]] void fail(std::size_t line, const std::string& what) {
  throw std::runtime_error("line " + std::to_string(line) + ": " + what);
}

// Takes one line of a block into the commands.
void addLine(std::vector<ConsoleCommand>& commands, std::size_t blockStart, std::size_t number,
             const std::string& line) {
  if (startsWith(line, kPrompt)) {
    commands.push_back({number, line.substr(2), ""});
  } else if (commands.empty() || commands.back().line < blockStart) {
    fail(number, "a console block begins with a command");
  } else if (startsWith(line, kContinuation) && commands.back().output.empty()) {
    commands.back().command += "\n" + line.substr(2);
  } else {
    commands.back().output += line + "\n";
  }
}

bool matches(const Lines& shown, std::size_t s, const Lines& output, std::size_t o) {
  for (; s < shown.size(); ++s, ++o) {
    if (shown[s] == kAnyLines) {
      for (; o <= output.size(); ++o) {
        if (matches(shown, s + 1, output, o)) return true;
      }
      return false;
    }
    if (o == output.size() || shown[s] != output[o]) return false;
  }
  return o == output.size();
}

}  // namespace

std::vector<ConsoleCommand> consoleCommands(const std::string& page) {
  std::vector<ConsoleCommand> commands;
  std::size_t blockStart = 0;  // 0 outside of blocks
  std::size_t number = 0;
  for (const std::string& line : linesOf(page)) {
    ++number;
    if (blockStart == 0) {
      if (line == kBlockStart) blockStart = number;
    } else if (line == kBlockEnd) {
      blockStart = 0;
    } else {
      addLine(commands, blockStart, number, line);
    }
  }
  if (blockStart != 0) fail(blockStart, "the console block does not end");
  return commands;
}

bool matchesShown(const std::string& shown, const std::string& output) {
  return matches(linesOf(shown), 0, linesOf(output), 0);
}

}  // namespace mlnn::test
