// commandLines — what every command of the tool can be asked for, made from the tool's own list of
// commands and options: a new one is tried by whoever walks over them, or says that it is not
// known.
#pragma once

#include <string>
#include <vector>

#include "tests/support/TempFolder.h"

namespace mlnn::test {

struct TriedLine {
  std::string name;                    // as in "reduce --bits 4"
  std::vector<std::string> arguments;  // the command's name first
};

// The names that the lines below give to what they read. Each is made by makeInputs.
inline constexpr char kModelName[] = "model";
inline constexpr char kFramesName[] = "frames.npy";

// Results go to files of this name, so there may be one before.
inline constexpr char kResultName[] = "out";

// The names of all commands, in the order of the help.
std::vector<std::string> commandNames();

// The command as it stands, and with each of its options, once for each value to be tried.
// Throws: std::logic_error for an argument or option whose value is not known: say it in
// CommandLines.cpp.
std::vector<TriedLine> commandLines(const std::string& command);

// Makes every file that the lines read: of a small model, and frames for it.
void makeInputs(const TempFolder& folder);

}  // namespace mlnn::test
