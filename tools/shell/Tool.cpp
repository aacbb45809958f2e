#include "tools/shell/Tool.h"

#include <CLI/CLI.hpp>
#include <iostream>
#include <new>
#include <sstream>
#include <stdexcept>
#include <utility>

#include "features/Version.h"
#include "os/Descriptors.h"
#include "text/Escape.h"
#include "tools/Failure.h"
#include "tools/OutOfMemory.h"
#include "tools/files/DescriptorBuffer.h"

namespace mlnn {
namespace {

std::string indented(const std::string& lines) {
  std::istringstream in(lines);
  std::string out;
  for (std::string line; std::getline(in, line);) out += line.empty() ? "\n" : "  " + line + "\n";
  return out;
}

std::string footerOf(const CommandHelp& help) {
  std::string footer;
  if (!help.details.empty()) footer += help.details + "\n\n";
  if (!help.examples.empty()) footer += "EXAMPLES\n" + indented(help.examples) + "\n";
  return footer + "EXIT STATUS\n" + indented(help.exitStatus);
}

// While it lives, std::cout writes straight to the standard output and knows why it could not.
class StandardOutput {
 public:
  StandardOutput() : buffer_(kStandardOutput), before_(std::cout.rdbuf(&buffer_)) {}
  ~StandardOutput() { std::cout.rdbuf(before_); }
  StandardOutput(const StandardOutput&) = delete;
  StandardOutput& operator=(const StandardOutput&) = delete;

  // Makes sure that what was printed has arrived: a full disk or a closed pipe is a failure.
  void finish() {
    std::cout.flush();
    if (!std::cout) throw Failure(cannotWrite("to standard output", buffer_.error()));
  }

 private:
  DescriptorBuffer buffer_;
  std::streambuf* before_;
};

// What should be a command and is none is said to be that, not just an argument too many.
CLI::Error namedBetter(const CLI::App& app, const CLI::ExtrasError& error) {
  const std::vector<std::string> extras = app.remaining();
  const bool isOption = extras.empty() || extras.front().compare(0, 1, "-") == 0;
  if (!app.get_subcommands().empty() || isOption) return error;
  return {"ExtrasError", "There is no command '" + extras.front() + "'",
          CLI::ExitCodes::ExtrasError};
}

}  // namespace

Tool::Tool()
    : app_(std::make_unique<CLI::App>(
          "Reads, runs, converts and examines neural-network models for mel features")) {
  app_->name("mlnn");
  app_->allow_windows_style_options(false);  // what begins with '/' is a file everywhere
  app_->set_version_flag("--version", "mlnn " MLNN_VERSION_STRING);
  app_->require_subcommand(0, 1);            // a wrong one is to be named, not missed
  app_->get_formatter()->label("TEXT", "");  // types that say nothing
  app_->get_formatter()->label("REQUIRED", "");
  app_->footer(
      "Each command has its own help: mlnn COMMAND --help\n\n"
      "EXIT STATUS\n" +
      indented(CommandHelp().exitStatus));
  app_->failure_message([](const CLI::App*, const CLI::Error& error) {
    return "ERROR: " + escaped(error.what()) + "\nRun with --help for more information.\n";
  });
}

Tool::~Tool() = default;

CommandLine Tool::addCommand(const CommandHelp& help, std::function<int()> run) {
  CLI::App* parser = app_->add_subcommand(help.name, help.summary);
  parser->footer(footerOf(help));
  commands_.push_back({parser, std::move(run), help.failureStatus});
  return CommandLine(parser);
}

int Tool::run(int argc, const char* const* argv) {
  StandardOutput output;
  const auto work = [&] {
    const int status = parseAndRun(argc, argv);
    output.finish();
    return status;
  };
  return statusOf(work);
}

int Tool::parseAndRun(int argc, const char* const* argv) {
  try {
    app_->parse(argc, argv);
    if (app_->get_subcommands().empty()) throw CLI::RequiredError("A command");
  } catch (const CLI::ExtrasError& error) {
    app_->exit(namedBetter(*app_, error));
    return kWrongUsage;
  } catch (const CLI::ParseError& error) {
    return app_->exit(error) == 0 ? kDone : kWrongUsage;
  }
  for (const Command& command : commands_) {
    if (!command.parser->parsed()) continue;
    failureStatus_ = command.failureStatus;
    return command.run();
  }
  return kWrongUsage;
}

int Tool::statusOf(const std::function<int()>& work) const {
  try {
    return work();
  } catch (const UsageError& error) {
    printError(error.what());
    return kWrongUsage;
  } catch (const Failure& error) {
    printError(error.what());
  } catch (const std::bad_alloc&) {
    printOutOfMemory();
  } catch (const std::length_error&) {  // more entries than any array can have
    printOutOfMemory();
  }
  return failureStatus_;
}

}  // namespace mlnn
