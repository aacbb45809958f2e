#include "tools/files/ModelLoading.h"

#include <iostream>
#include <sstream>
#include <vector>

#include "model/ImageReader.h"
#include "model/ModelFormat.h"
#include "text/Escape.h"
#include "text/TextParts.h"
#include "tools/CapturedDiagnostics.h"
#include "tools/Failure.h"
#include "tools/files/InputFile.h"

namespace mlnn {
namespace {

constexpr char kInfoPrefix[] = "info: ";

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

void showMessages(const std::string& messages, bool verbose) {
  std::istringstream in(messages);
  for (std::string line; std::getline(in, line);) {
    if (verbose || !startsWith(line, kInfoPrefix)) std::cerr << escaped(line) + "\n";
  }
}

bool parseModel(const std::string& bytes, ModelFile& file, std::string& messages) {
  const CapturedDiagnostics captured;
  const bool done = readModel(bytes.data(), bytes.size(), file) == 0;
  messages = captured.text();
  return done;
}

void setHiddenActivations(ModelFile& file, const std::string& given) {
  setHiddenActivations(file, openOptions(file, given));
}

ModelFile loadModel(const std::string& name, const LoadOptions& options) {
  ModelFile file;
  file.name = name;
  std::string messages;
  const bool done = parseModel(readInput(name), file, messages);
  showMessages(messages, options.verbose);
  if (!done) throw Failure("could not load the model " + inputName(name) + untoldReason(file));
  if (!options.keepLinear) setHiddenActivations(file, options.hiddenActFn);
  return file;
}

}  // namespace mlnn
