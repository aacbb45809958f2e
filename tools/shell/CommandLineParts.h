// What a CLI11 command line consists of, as its man page and completions need it.
#pragma once

#include <string>
#include <vector>

namespace CLI {
class App;
class Option;
}  // namespace CLI

namespace mlnn {

std::vector<const CLI::App*> commandsOf(const CLI::App& app);

// The options with a name, and the arguments that are told by their place.
std::vector<const CLI::Option*> namedOptionsOf(const CLI::App& app);
std::vector<const CLI::Option*> argumentsOf(const CLI::App& app);

// All names of an option with their dashes: "-o", "--output".
std::vector<std::string> namesOf(const CLI::Option& option);

bool takesValue(const CLI::Option& option);

// What stands for an option's value in texts: "NAME", "ascii|binary".
std::string typeOf(const CLI::Option& option);

// The words that an option takes, where its type or its check lists them; else none.
std::vector<std::string> choicesOf(const CLI::Option& option);

}  // namespace mlnn
