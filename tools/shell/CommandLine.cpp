#include "tools/shell/CommandLine.h"

#include <CLI/CLI.hpp>
#include <cstdint>
#include <optional>
#include <utility>

namespace mlnn {

std::string notEmpty(const std::string& value) {
  return value.empty() ? "expected a value but found ''" : "";
}

bool readNumber(const std::string& text, float& value) {
  return CLI::detail::lexical_cast(text, value);
}

// --- Option ---

Option& Option::required() {
  option_->required();
  return *this;
}

Option& Option::atLeast(int values) {
  option_->expected(values, CLI::detail::expected_max_vector_size);
  return *this;
}

Option& Option::oneValueEach() {
  option_->allow_extra_args(false);
  return *this;
}

Option& Option::separatedBy(char separator) {
  option_->delimiter(separator);
  return *this;
}

Option& Option::check(const ValueCheck& check) {
  option_->check(CLI::Validator(check, ""));  // a description would become part of the type
  return *this;
}

template <typename T>
Option& Option::inRange(T smallest, T largest) {
  option_->check(CLI::Range(smallest, largest));
  return *this;
}

template Option& Option::inRange(int, int);
template Option& Option::inRange(unsigned int, unsigned int);
template Option& Option::inRange(unsigned long, unsigned long);
template Option& Option::inRange(unsigned long long, unsigned long long);  // sizes on Windows

Option& Option::aboveZero() {
  option_->check(CLI::PositiveNumber);
  return *this;
}

Option& Option::oneOf(const std::vector<std::string>& words) {
  option_->check(CLI::IsMember(words));
  return *this;
}

Option& Option::type(const std::string& name) {
  option_->type_name(name);
  return *this;
}

Option& Option::showDefault() {
  option_->capture_default_str();
  return *this;
}

Option& Option::fromEnvironment(const std::string& variable) {
  option_->envname(variable);
  return *this;
}

Option& Option::needs(const Option& other) {
  option_->needs(other.option_);
  return *this;
}

Option& Option::excludes(const Option& other) {
  option_->excludes(other.option_);
  return *this;
}

// --- CommandLine ---

template <typename T>
Option CommandLine::add(const std::string& names, T& value, const std::string& description) {
  return Option(parser_->add_option(names, value, description));
}

template Option CommandLine::add(const std::string&, std::string&, const std::string&);
template Option CommandLine::add(const std::string&, std::vector<std::string>&, const std::string&);
template Option CommandLine::add(const std::string&, int&, const std::string&);
template Option CommandLine::add(const std::string&, unsigned int&, const std::string&);
template Option CommandLine::add(const std::string&, unsigned long&, const std::string&);
template Option CommandLine::add(const std::string&, unsigned long long&, const std::string&);
template Option CommandLine::add(const std::string&, float&, const std::string&);
template Option CommandLine::add(const std::string&, double&, const std::string&);
template Option CommandLine::add(const std::string&, std::vector<double>&, const std::string&);
template Option CommandLine::add(const std::string&, std::optional<int>&, const std::string&);
template Option CommandLine::add(const std::string&, std::optional<uint32_t>&, const std::string&);
template Option CommandLine::add(const std::string&, std::optional<float>&, const std::string&);

Option CommandLine::addFlag(const std::string& names, bool& value, const std::string& description) {
  return Option(parser_->add_flag(names, value, description));
}

Option CommandLine::addFunction(const std::string& name,
                                std::function<void(const std::string&)> take,
                                const std::string& description) {
  return Option(parser_->add_option_function<std::string>(name, std::move(take), description));
}

}  // namespace mlnn
