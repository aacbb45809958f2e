#include "tools/files/ModelFile.h"

#include <boost/interprocess/streams/bufferstream.hpp>
#include <iostream>
#include <sstream>
#include <utility>

#include "model/ImageReader.h"
#include "model/ModelFormat.h"
#include "text/Escape.h"
#include "text/Numbers.h"
#include "text/TextParts.h"
#include "tools/CapturedDiagnostics.h"
#include "tools/Failure.h"
#include "tools/files/InputFile.h"

namespace mlnn {
namespace {

constexpr char kInfoPrefix[] = "info: ";

ModelFormat formatOf(const std::string& bytes) {
  return startsWith(bytes, kMagic) ? ModelFormat::kBinary : ModelFormat::kText;
}

int textVersionOf(const std::string& bytes) {
  return startsWith(bytes, std::string(kHeaderVersion1) + "\n") ? 1 : 2;
}

// Whether the file says which activation the layer has. Images always do.
bool recordsActivation(const ModelFile& file, const NNLayer& layer) {
  if (file.format == ModelFormat::kBinary) return true;
  return file.textVersion != 1 && !layer.isBatchNorm;
}

void warnOfLinearLayers(const ModelFile& file, std::size_t number) {
  const std::string property = file.model.getProp(kHiddenActFnProperty);
  const std::string why = property.empty()
                              ? std::string("has no property ") + kHiddenActFnProperty
                              : std::string("has a property ") + kHiddenActFnProperty + " of " +
                                    inQuotes(property) + ", which is no activation";
  printWarning(inputName(file.name) + " does not record the activation of " +
               counted(number, "hidden layer") + " and " + why +
               "; they are taken as linear (see --act-fn)");
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

void addLoadOptions(CLI::App& command, LoadOptions& options) {
  command
      .add_option("--act-fn", options.hiddenActFn,
                  "Activation of hidden layers whose file records none")
      ->check(CLI::IsMember(activationNames()))
      ->type_name("NAME");
  command.add_flag("-v,--verbose", options.verbose, "Show what the reader says while it reads");
}

void showMessages(const std::string& messages, bool verbose) {
  std::istringstream in(messages);
  for (std::string line; std::getline(in, line);) {
    if (verbose || !startsWith(line, kInfoPrefix)) std::cerr << escaped(line) + "\n";
  }
}

std::vector<NNLayer*> layersWithoutActivation(const ModelFile& file) {
  std::vector<NNLayer*> found;
  const std::vector<NNLayer*>& layers = file.model.layers;
  for (std::size_t i = 0; i + 1 < layers.size(); ++i) {
    if (layers[i] == nullptr || recordsActivation(file, *layers[i])) continue;
    found.push_back(layers[i]);
  }
  return found;
}

bool parseModel(const std::string& bytes, ModelFile& file, std::string& messages) {
  const CapturedDiagnostics captured;
  file.length = bytes.size();
  file.format = formatOf(bytes);
  file.textVersion = file.format == ModelFormat::kText ? textVersionOf(bytes) : 0;
  boost::interprocess::ibufferstream in(bytes.data(), bytes.size());
  const bool done = file.model.deserialize(in) == 0;
  messages = captured.text();
  return done;
}

void setHiddenActivations(ModelFile& file, const std::string& given) {
  const std::vector<NNLayer*> layers = layersWithoutActivation(file);
  if (layers.empty()) {
    if (given.empty()) return;
    printWarning("--act-fn changes nothing: " + inputName(file.name) +
                 " records the activation of every hidden layer");
    return;
  }
  const bool isGiven = !given.empty();
  const std::string name = isGiven ? given : file.model.getProp(kHiddenActFnProperty);
  ActFn::ActFn actFn;
  if (ActFn::stringToActFn(name, actFn) != 0) {
    warnOfLinearLayers(file, layers.size());
    return;
  }
  for (NNLayer* layer : layers) layer->actFn = actFn;
  printInfo("activation of " + counted(layers.size(), "hidden layer") + " set to " + name +
            (isGiven ? " (--act-fn)" : std::string(" (property ") + kHiddenActFnProperty + ")"));
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
