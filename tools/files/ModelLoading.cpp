#include "tools/files/ModelLoading.h"

#include <iostream>
#include <sstream>
#include <vector>

#include "model/ImageReader.h"
#include "model/ModelFormat.h"
#include "text/Escape.h"
#include "tools/Failure.h"
#include "tools/files/InputFile.h"

namespace mlnn {
namespace {

// How messages of the library call the file and the option.
OpenOptions openOptions(const ModelFile& file, const std::string& hiddenActFn) {
  return {hiddenActFn, "--act-fn", inputName(file.name)};
}

std::vector<std::string> activationNames() {
  std::vector<std::string> names;
  names.reserve(ActFn::kCount);
  for (int32_t code = 0; code < ActFn::kCount; ++code) {
    names.push_back(ActFn::actFnToString(static_cast<ActFn::ActFn>(code)));
  }
  return names;
}

// Why the reader refused what it refuses without a word; "" where it has told.
std::string untoldReason(const ModelFile& file) {
  if (file.format != ModelFormat::kBinary || file.length >= kMinImageLength) return "";
  return ": " + shorterThanHead(file.length);
}

}  // namespace

void addLoadOptions(CommandLine& command, LoadOptions& options) {
  command
      .add("--act-fn", options.hiddenActFn, "Activation of hidden layers whose file records none")
      .oneOf(activationNames())
      .type("NAME");
  command.addFlag("-v,--verbose", options.verbose, "Show what the reader says while it reads");
}

std::vector<std::string> linesOf(const std::vector<Message>& messages, bool verbose) {
  std::vector<std::string> lines;
  for (const Message& message : messages) {
    if (message.severity == Severity::kInfo && !verbose) continue;
    std::istringstream in(message.text);
    for (std::string line; std::getline(in, line);) lines.push_back(escaped(line));
  }
  return lines;
}

void showMessages(const std::vector<Message>& messages, bool verbose) {
  for (const std::string& line : linesOf(messages, verbose)) std::cerr << line + "\n";
}

bool parseModel(const std::string& bytes, ModelFile& file, std::vector<Message>& messages) {
  const CollectedMessages said;
  const bool done = readModel(bytes.data(), bytes.size(), file) == 0;
  messages = said.messages();
  return done;
}

void setHiddenActivations(ModelFile& file, const std::string& given) {
  setHiddenActivations(file, openOptions(file, given));
}

ModelFile loadModel(const std::string& name, const LoadOptions& options) {
  ModelFile file;
  file.name = name;
  std::vector<Message> messages;
  const bool done = parseModel(readInput(name), file, messages);
  showMessages(messages, options.verbose);
  if (!done) throw Failure("could not load the model " + inputName(name) + untoldReason(file));
  if (!options.keepLinear) setHiddenActivations(file, options.hiddenActFn);
  return file;
}

}  // namespace mlnn
