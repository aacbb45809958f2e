// The man page: one section for each command, in the words of its help.
#include <CLI/CLI.hpp>
#include <algorithm>
#include <cctype>
#include <ostream>
#include <sstream>

#include "tools/shell/CommandLineParts.h"
#include "tools/shell/HelpPages.h"

namespace mlnn {
namespace {

// Text for roff: a backslash and a dash are escaped, and no line begins with a control
// character.
std::string roffText(const std::string& text) {
  std::string out;
  for (const char c : text) {
    if (c == '\\') {
      out += "\\e";
    } else if (c == '-') {
      out += "\\-";
    } else if ((c == '.' || c == '\'') && (out.empty() || out.back() == '\n')) {
      out += std::string("\\&") + c;
    } else {
      out += c;
    }
  }
  return out;
}

bool isHeading(const std::string& line) {
  return !line.empty() && std::all_of(line.begin(), line.end(), [](unsigned char c) {
    return std::isupper(c) || c == ' ';
  }) && line[0] != ' ';
}

// A footer of the help: its headings in bold, everything else line by line as it stands there.
void writeFooter(std::ostream& out, const std::string& footer) {
  std::istringstream in(footer);
  out << ".PP\n.nf\n";
  for (std::string line; std::getline(in, line);) {
    if (isHeading(line)) {
      out << ".B " << roffText(line) << "\n";
    } else {
      out << roffText(line) << "\n";
    }
  }
  out << ".fi\n";
}

std::string argumentText(const CLI::Option& argument) {
  const std::string name =
      argument.get_name(true) + (argument.get_items_expected_max() > 1 ? "..." : "");
  return argument.get_required() ? name : "[" + name + "]";
}

void writeSynopsis(std::ostream& out, const CLI::App& command) {
  out << ".B mlnn " << command.get_name() << "\n";
  if (!namedOptionsOf(command).empty()) out << "[\\fIOPTION\\fR]...\n";
  for (const CLI::Option* argument : argumentsOf(command)) {
    out << "\\fI" << roffText(argumentText(*argument)) << "\\fR\n";
  }
}

std::string joined(const std::vector<std::string>& words, const std::string& separator) {
  std::string out;
  for (const std::string& word : words) out += (out.empty() ? "" : separator) + word;
  return out;
}

std::string defaultText(const CLI::Option& option) {
  const std::string value = option.get_default_str();
  return value.empty() ? "" : " (default " + value + ")";
}

// The words that an option takes, where its type does not show them.
std::string choicesText(const CLI::Option& option) {
  const bool isShown = typeOf(option).find('|') != std::string::npos;
  const std::vector<std::string> choices = choicesOf(option);
  return isShown || choices.empty() ? "" : ": " + joined(choices, ", ");
}

void writeOption(std::ostream& out, const CLI::Option& option) {
  out << ".TP\n\\fB" << roffText(joined(namesOf(option), ", ")) << "\\fR";
  const std::string type = typeOf(option);
  if (takesValue(option) && !type.empty()) out << " \\fI" << roffText(type) << "\\fR";
  out << "\n"
      << roffText(option.get_description() + choicesText(option) + defaultText(option)) << "\n";
}

void writeArgument(std::ostream& out, const CLI::Option& argument) {
  out << ".TP\n\\fI" << roffText(argumentText(argument)) << "\\fR\n"
      << roffText(argument.get_description()) << "\n";
}

void writeCommand(std::ostream& out, const CLI::App& command) {
  out << ".SS mlnn " << command.get_name() << "\n";
  out << roffText(command.get_description()) << ".\n.PP\n";
  writeSynopsis(out, command);
  for (const CLI::Option* argument : argumentsOf(command)) writeArgument(out, *argument);
  for (const CLI::Option* option : namedOptionsOf(command)) writeOption(out, *option);
  writeFooter(out, command.get_footer());
}

}  // namespace

void writeManPage(std::ostream& out, const CLI::App& app, const std::string& version) {
  out << ".TH MLNN 1 \"\" \"mlnn " << version << "\" \"User Commands\"\n"
      << ".SH NAME\nmlnn \\- " << roffText(app.get_description()) << "\n"
      << ".SH SYNOPSIS\n.B mlnn\n\\fICOMMAND\\fR [\\fIOPTION\\fR]... [\\fIARGUMENT\\fR]...\n"
      << ".SH OPTIONS\n";
  for (const CLI::Option* option : namedOptionsOf(app)) writeOption(out, *option);
  out << ".SH COMMANDS\n";
  for (const CLI::App* command : commandsOf(app)) writeCommand(out, *command);
}

}  // namespace mlnn
