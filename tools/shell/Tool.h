// Tool — the command line of `mlnn`: its commands, their help, and what their failures mean.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "tools/ExitStatus.h"
#include "tools/shell/CommandLine.h"

namespace mlnn {

// What the help says of a command.
struct CommandHelp {
  std::string name;
  std::string summary;   // one sentence, without a full stop
  std::string details;   // paragraphs between the options and the examples; may be empty
  std::string examples;  // command lines, one a line
  std::string exitStatus =
      "0  done\n"
      "1  refused or failed; nothing is left half-written\n"
      "2  wrong usage";
  int failureStatus = kRefused;  // of a command that throws Failure
};

class Tool {
 public:
  // A tool without commands, but with --help and --version.
  Tool();
  ~Tool();
  Tool(const Tool&) = delete;
  Tool& operator=(const Tool&) = delete;

  // Adds a command. `run` is called when the command line names it and is well-formed; it
  // returns the exit status or throws Failure.
  // Returns: what to declare arguments and options on. What these write to must live as long as
  // the tool, for example by being shared with `run`.
  CommandLine addCommand(const CommandHelp& help, std::function<int()> run);

  // Runs the command that the command line names.
  // Returns: the exit status. No exception leaves it.
  int run(int argc, const char* const* argv);

  // The whole command line, for what is made from its help texts.
  const CLI::App& app() const { return *app_; }

 private:
  struct Command {
    CLI::App* parser;
    std::function<int()> run;
    int failureStatus;
  };

  int parseAndRun(int argc, const char* const* argv);
  int statusOf(const std::function<int()>& work) const;

  std::unique_ptr<CLI::App> app_;
  std::vector<Command> commands_;
  int failureStatus_ = kRefused;  // of the command that runs
};

}  // namespace mlnn
