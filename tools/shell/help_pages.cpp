// Writes the man page and the shell completions into a folder; run when the tool is built.
// Usage: mlnn_help_pages FOLDER
#include <filesystem>
#include <fstream>
#include <iostream>

#include "features/Version.h"
#include "tools/commands/Commands.h"
#include "tools/shell/HelpPages.h"

int main(int argc, char** argv) {
  if (argc != 2) {
    std::cerr << "Usage: mlnn_help_pages FOLDER\n";
    return 2;
  }
  mlnn::Tool tool;
  mlnn::addCommands(tool);
  const std::filesystem::path folder = argv[1];
  std::filesystem::create_directories(folder);
  std::ofstream manPage(folder / "mlnn.1");
  std::ofstream bash(folder / "mlnn.bash");
  std::ofstream zsh(folder / "_mlnn");
  mlnn::writeManPage(manPage, tool.app(), MLNN_VERSION_STRING);
  mlnn::writeBashCompletion(bash, tool.app());
  mlnn::writeZshCompletion(zsh, tool.app());
  return manPage.flush() && bash.flush() && zsh.flush() ? 0 : 1;
}
