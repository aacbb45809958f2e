// Failure — how the tool's own code says that it cannot go on, and the lines that it puts on
// the standard error stream.
#pragma once

#include <cstring>
#include <iostream>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>

namespace mlnn {

// A command that throws it prints "ERROR: " and the text and ends with its failure status.
// Text that comes from a file or a command line goes in escaped (text/Escape.h).
class Failure : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// The command line asks for something that does not make sense; status 2.
class UsageError : public Failure {
 public:
  using Failure::Failure;
};

// Returns what an operation of the library gave.
// Throws: Failure with the text where that is nothing.
template <typename Value>
Value orFail(std::optional<Value> value, const std::string& whyNot) {
  if (!value) throw Failure(whyNot);
  return *std::move(value);
}

// Why something was not written: the text of a Failure. `error` is an errno, 0 for unknown.
inline std::string cannotWrite(const std::string& what, int error) {
  return "cannot write " + what + (error == 0 ? "" : std::string(": ") + std::strerror(error));
}

inline void printError(const std::string& text) { std::cerr << "ERROR: " + text + "\n"; }
inline void printWarning(const std::string& text) { std::cerr << "Warning: " + text + "\n"; }
inline void printInfo(const std::string& text) { std::cerr << "info: " + text + "\n"; }

}  // namespace mlnn
