// The man page and the shell completions, made from the commands' own help texts.
#pragma once

#include <iosfwd>
#include <string>

namespace CLI {
class App;
}

namespace mlnn {

// Writes the manual page mlnn(1) in the man macros of roff.
void writeManPage(std::ostream& out, const CLI::App& app, const std::string& version);

// Writes completions for bash and zsh: commands, options, the words that an option takes where
// its type lists them ("ascii|binary"), and file names elsewhere.
void writeBashCompletion(std::ostream& out, const CLI::App& app);
void writeZshCompletion(std::ostream& out, const CLI::App& app);

}  // namespace mlnn
