// The completions for bash and zsh.
#include <CLI/CLI.hpp>
#include <ostream>

#include "tools/shell/CommandLineParts.h"
#include "tools/shell/HelpPages.h"

namespace mlnn {
namespace {

std::string joined(const std::vector<std::string>& words) {
  std::string out;
  for (const std::string& word : words) out += (out.empty() ? "" : " ") + word;
  return out;
}

std::vector<std::string> optionNamesOf(const CLI::App& app) {
  std::vector<std::string> names;
  for (const CLI::Option* option : namedOptionsOf(app)) {
    for (const std::string& name : namesOf(*option)) names.push_back(name);
  }
  return names;
}

std::vector<std::string> commandNamesOf(const CLI::App& app) {
  std::vector<std::string> names;
  for (const CLI::App* command : commandsOf(app)) names.push_back(command->get_name());
  return names;
}

// Text in single quotes, for both shells.
std::string quoted(const std::string& text) {
  std::string out = "'";
  for (const char c : text) out += c == '\'' ? "'\\''" : std::string(1, c);
  return out + "'";
}

// Lines of a case statement that tell the words after an option, or that a file name follows.
void writeBashValues(std::ostream& out, const CLI::App& command) {
  for (const CLI::Option* option : namedOptionsOf(command)) {
    if (!takesValue(*option)) continue;
    for (const std::string& name : namesOf(*option)) {
      out << "    " << quoted(command.get_name() + " " + name)
          << ") takes_value=1 words=" << quoted(joined(choicesOf(*option))) << " ;;\n";
    }
  }
}

// Text inside the brackets of a zsh option.
std::string zshText(const std::string& text) {
  std::string out;
  for (const char c : text) {
    if (c == '[' || c == ']' || c == ':' || c == '\\') out += '\\';
    out += c;
  }
  return out;
}

// What _arguments completes as an option's value: its words, or files.
std::string zshValue(const CLI::Option& option) {
  if (!takesValue(option)) return "";
  const std::vector<std::string> choices = choicesOf(option);
  return choices.empty() ? ":value:_files" : ":value:(" + joined(choices) + ")";
}

void writeZshCommand(std::ostream& out, const CLI::App& command) {
  out << "    " << command.get_name() << ")\n      _arguments \\\n";
  for (const CLI::Option* option : namedOptionsOf(command)) {
    for (const std::string& name : namesOf(*option)) {
      out << "        "
          << quoted(name + "[" + zshText(option->get_description()) + "]" + zshValue(*option))
          << " \\\n";
    }
  }
  out << "        '*:file:_files'\n      ;;\n";
}

}  // namespace

void writeBashCompletion(std::ostream& out, const CLI::App& app) {
  out << "# Completion of mlnn for bash; made from its help texts.\n"
         "_mlnn() {\n"
         "  local current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD - 1]}\n"
         "  local command=${COMP_WORDS[1]} takes_value= words= options=\n"
         "  COMPREPLY=()\n"
         "  if ((COMP_CWORD == 1)); then\n"
         "    COMPREPLY=($(compgen -W "
      << quoted(joined(commandNamesOf(app)) + " " + joined(optionNamesOf(app)))
      << " -- \"$current\"))\n"
         "    return\n"
         "  fi\n"
         "  case \"$command $previous\" in\n";
  for (const CLI::App* command : commandsOf(app)) writeBashValues(out, *command);
  out << "  esac\n"
         "  case $command in\n";
  for (const CLI::App* command : commandsOf(app)) {
    out << "    " << command->get_name() << ") options=" << quoted(joined(optionNamesOf(*command)))
        << " ;;\n";
  }
  // An empty reply leaves the word to `-o default`, which completes file names.
  out << "  esac\n"
         "  if [[ -n $takes_value ]]; then\n"
         "    COMPREPLY=($(compgen -W \"$words\" -- \"$current\"))\n"
         "  elif [[ $current == -* ]]; then\n"
         "    COMPREPLY=($(compgen -W \"$options\" -- \"$current\"))\n"
         "  fi\n"
         "}\n"
         "complete -o default -F _mlnn mlnn\n";
}

void writeZshCompletion(std::ostream& out, const CLI::App& app) {
  out << "#compdef mlnn\n"
         "# Completion of mlnn for zsh; made from its help texts.\n"
         "_mlnn() {\n"
         "  local -a commands=(\n";
  for (const CLI::App* command : commandsOf(app)) {
    out << "    " << quoted(command->get_name() + ":" + zshText(command->get_description()))
        << "\n";
  }
  out << "  )\n"
         "  if ((CURRENT == 2)); then\n"
         "    _describe command commands\n"
         "    _values -S ' ' option";
  for (const std::string& name : optionNamesOf(app)) out << " " << quoted(name);
  out << "\n"
         "    return\n"
         "  fi\n"
         "  local command=$words[2]\n"
         "  shift words\n"
         "  ((CURRENT--))\n"
         "  case $command in\n";
  for (const CLI::App* command : commandsOf(app)) writeZshCommand(out, *command);
  out << "  esac\n"
         "}\n"
         "_mlnn \"$@\"\n";
}

}  // namespace mlnn
