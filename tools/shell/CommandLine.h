// CommandLine — what a command declares of its arguments and options. Hides the parser, whose
// header takes longer to compile than any command.
#pragma once

#include <functional>
#include <string>
#include <vector>

namespace CLI {
class App;
class Option;
}  // namespace CLI

namespace mlnn {

// Returns why a value is not taken; "" for one that is.
using ValueCheck = std::function<std::string(const std::string& value)>;

// Accepts any value but "", as an unset variable of a script would give; it would count as not
// given.
std::string notEmpty(const std::string& value);

// Reads a number as the parser reads the value of an option.
// Returns: whether `text` is one; `value` is undefined when not.
bool readNumber(const std::string& text, float& value);

// One argument or option of a command. Every operation returns the option itself.
class Option {
 public:
  explicit Option(CLI::Option* option) : option_(option) {}

  Option& required();
  Option& atLeast(int values);  // of a list
  Option& oneValueEach();       // of a list: the option is repeated for each
  Option& separatedBy(char separator);
  Option& check(const ValueCheck& check);
  template <typename T>  // int, unsigned int or unsigned long, as the value is
  Option& inRange(T smallest, T largest);
  Option& aboveZero();
  Option& oneOf(const std::vector<std::string>& words);
  Option& type(const std::string& name);                 // what stands for the value in the help
  Option& showDefault();                                 // in the help
  Option& fromEnvironment(const std::string& variable);  // where the option is not given
  Option& needs(const Option& other);
  Option& excludes(const Option& other);

 private:
  CLI::Option* option_;  // the parser's
};

class CommandLine {
 public:
  explicit CommandLine(CLI::App* parser) : parser_(parser) {}

  // Declares an option ("-o,--out"), or an argument that is told by its place ("MODEL"). What it
  // gives is written to `value`, which must live as long as the tool.
  // T: what CommandLine.cpp lists.
  template <typename T>
  Option add(const std::string& names, T& value, const std::string& description);

  Option addFlag(const std::string& names, bool& value, const std::string& description);

  // Hands the value to `take`.
  Option addFunction(const std::string& name, std::function<void(const std::string&)> take,
                     const std::string& description);

 private:
  CLI::App* parser_;  // the tool's
};

}  // namespace mlnn
