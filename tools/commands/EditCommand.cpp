#include "tools/commands/EditCommand.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <memory>
#include <optional>
#include <vector>

#include "text/Escape.h"
#include "text/Numbers.h"
#include "tools/Failure.h"
#include "tools/commands/HeaderEntries.h"
#include "tools/commands/LayerSizes.h"
#include "tools/commands/NetworkOptions.h"
#include "tools/files/ModelLoading.h"
#include "tools/files/ModelSaving.h"
#include "tools/shell/Tool.h"

namespace mlnn {
namespace {

struct Options {
  std::string in;
  std::string out;
  bool verbose = false;
  unsigned int deleteLayers = 0;
  std::optional<int> addLayer;  // its outputs
  RandomInit init;
  bool batchNorm = false;
  bool zero = false;
  std::optional<float> scale;
  std::optional<bool> softmax;
  std::string actFn;                     // of all hidden layers
  std::vector<std::string> layerActFns;  // "K=NAME"
  std::vector<std::string> unset;
  std::vector<std::string> set;  // "KEY=VALUE"
  std::vector<std::string> notes;
  SaveOptions save;
};

CommandHelp help() {
  CommandHelp help;
  help.name = "edit";
  help.summary = "Changes a model's properties, notes, activations, layers or scale";
  help.details =
      "Changes are made in this order, wherever the options stand: --delete-layers, --add-layer,\n"
      "--zero or --scale, --softmax, --act-fn, --act-fn-layer, --unset, --set, --note.\n"
      "\n"
      "Layers count from 1. The hidden layers are all but the last. Under a softmax the output\n"
      "layer is linear: switching it on makes it so, and so does deleting the layers behind it;\n"
      "switching it off leaves it linear. A layer that --add-layer turns into a hidden one keeps\n"
      "its activation.\n"
      "\n"
      "--scale multiplies all parameters of all layers, those of batch norm included.\n"
      "\n"
      "OUT may be IN: it is replaced when everything has gone well.";
  help.examples =
      "mlnn edit model.txt model.txt --set name=digits-3 --note \"approved for the field test\"\n"
      "mlnn edit model.mlnn new.mlnn --act-fn relu --act-fn-layer 2=tanh\n"
      "mlnn edit model.txt new.txt --delete-layers 1 --add-layer 12 --init-scale 0.05 --seed 7";
  help.exitStatus =
      "0  done\n"
      "1  IN does not load, has no such layer, or OUT cannot be written; OUT is as it was\n"
      "2  wrong usage";
  return help;
}

// "KEY=VALUE" at the first "=".
struct Assignment {
  std::string key;
  std::string value;
};

Assignment parseAssignment(const std::string& text, const std::string& option,
                           const std::string& form) {
  const std::size_t equals = text.find('=');
  if (equals == std::string::npos) {
    throw UsageError(option + ": expected " + form + " but found " + inQuotes(text));
  }
  return {text.substr(0, equals), text.substr(equals + 1)};
}

std::vector<Assignment> assignmentsOf(const Options& options) {
  std::vector<Assignment> assignments;
  for (const std::string& text : options.set) {
    assignments.push_back(parseAssignment(text, "--set", "KEY=VALUE"));
    checkProperty(assignments.back().key, assignments.back().value);
  }
  return assignments;
}

struct LayerActFn {
  std::size_t layer;  // counted from 1
  ActFn::ActFn actFn;
};

std::vector<LayerActFn> layerActFnsOf(const Options& options) {
  std::vector<LayerActFn> found;
  for (const std::string& text : options.layerActFns) {
    const Assignment parts = parseAssignment(text, "--act-fn-layer", "K=NAME");
    std::size_t layer = 0;
    const char* const end = parts.key.data() + parts.key.size();
    const std::from_chars_result result = std::from_chars(parts.key.data(), end, layer);
    if (result.ec != std::errc() || result.ptr != end || layer == 0) {
      throw UsageError("--act-fn-layer: expected the number of a layer but found " +
                       inQuotes(parts.key));
    }
    found.push_back({layer, actFnOf(parts.value)});
  }
  return found;
}

// --- The changes ---

void deleteLayers(MultiLayerNNModel& model, unsigned int count) {
  if (model.deleteLayers(count) == 0) return;
  throw Failure("cannot delete " + counted(count, "layer") + ": the model has " +
                std::to_string(model.layers.size()));
}

void addLayer(MultiLayerNNModel& model, const Options& options) {
  if (!options.addLayer) return;
  const bool batchNorm = options.batchNorm;
  checkNetworkSize({model.numOutputs(), *options.addLayer}, batchNorm);
  applySeed(options.init);
  if (model.addLayerRndInit(*options.addLayer, options.init.scale, batchNorm) != 0) {
    throw Failure("cannot add a layer to a model that has none (mlnn new makes models)");
  }
}

// A hidden layer that became the output layer may have an activation.
void makeOutputLinear(MultiLayerNNModel& model) {
  if (!model.useSoftmax || model.layers.empty()) return;
  const ActFn::ActFn before = model.layers.back()->actFn;
  model.setSoftmax(true);
  if (before == ActFn::linear) return;
  printInfo("layer " + std::to_string(model.layers.size()) + ", which was " +
            ActFn::actFnToString(before) + ", is linear as the output layer under a softmax");
}

void setActFnOfLayer(MultiLayerNNModel& model, const LayerActFn& change) {
  const std::string name = "layer " + std::to_string(change.layer);
  if (change.layer > model.layers.size()) {
    throw Failure("there is no " + name + ": the model has " +
                  counted(model.layers.size(), "layer"));
  }
  const bool isOutput = change.layer == model.layers.size();
  if (isOutput && model.useSoftmax && change.actFn != ActFn::linear) {
    throw Failure(name + " is the output layer, which is linear under a softmax (--softmax off)");
  }
  model.layers[change.layer - 1]->actFn = change.actFn;
}

void unsetProperty(MultiLayerNNModel& model, const std::string& key) {
  if (model.props.erase(key) == 0) printWarning("there is no property " + inQuotes(key));
}

ModelFile load(const Options& options) {
  LoadOptions loading;
  loading.verbose = options.verbose;
  loading.keepLinear = !options.actFn.empty();
  return loadModel(options.in, loading);
}

void refuseStrangeScale(const Options& options) {
  if (!options.scale || std::isfinite(*options.scale)) return;
  throw UsageError("--scale: expected a finite number");
}

// An image has no place for it, so the edit would be lost.
void refuseSoftmaxOffInImage(const Options& options, ModelFormat format) {
  if (format != ModelFormat::kBinary || options.softmax.value_or(true)) return;
  throw UsageError(
      "--softmax off: an image does not hold it; write a text, or give it to `mlnn run`");
}

int run(const Options& options) {
  refuseStrangeScale(options);
  const std::vector<LayerActFn> layerActFns = layerActFnsOf(options);
  const std::vector<Assignment> assignments = assignmentsOf(options);
  for (const std::string& note : options.notes) checkNote(note);
  refuseLossOfModels({options.in}, options.out, options.save);
  ModelFile file = load(options);
  const ModelFormat format = formatToSave(options.out, options.save, file.format);
  refuseSoftmaxOffInImage(options, format);
  MultiLayerNNModel& model = file.model;
  deleteLayers(model, options.deleteLayers);
  addLayer(model, options);
  if (options.zero) model.zeros();
  if (options.scale) model *= *options.scale;
  if (options.softmax) model.setSoftmax(*options.softmax);
  if (options.deleteLayers > 0) makeOutputLinear(model);
  if (!options.actFn.empty()) setActFnOfHiddenLayers(model, actFnOf(options.actFn));
  for (const LayerActFn& change : layerActFns) setActFnOfLayer(model, change);
  for (const std::string& key : options.unset) unsetProperty(model, key);
  for (const Assignment& property : assignments) model.props[property.key] = property.value;
  for (const std::string& note : options.notes) model.notes.lines.push_back(note);
  saveModel(model, options.out, format, options.save);
  return kDone;
}

}  // namespace

void addEditCommand(Tool& tool) {
  const auto options = std::make_shared<Options>();
  CommandLine command = tool.addCommand(help(), [options] { return run(*options); });
  command.add("IN", options->in, "Model of either format; - is standard input").required();
  command.add("OUT", options->out, "File to write; - is standard output").required();
  const auto repeated = [&command](const std::string& name, std::vector<std::string>& values,
                                   const std::string& description, const std::string& type) {
    command.add(name, values, description + "; may be repeated").oneValueEach().type(type);
  };
  command.add("--delete-layers", options->deleteLayers, "Delete N layers from the output end")
      .type("N");
  const Option add = command
                         .add("--add-layer", options->addLayer,
                              "Add a layer with random weights at the output end")
                         .aboveZero()
                         .type("OUTPUTS");
  addScaleOption(command, "--init-scale", options->init).needs(add);
  addSeedOption(command, options->init).needs(add);
  command.addFlag("--batch-norm", options->batchNorm, "The added layer is a batch-norm layer")
      .needs(add);
  const Option zero = command.addFlag("--zero", options->zero, "Set all parameters to 0");
  command.add("--scale", options->scale, "Multiply all parameters by F").excludes(zero).type("F");
  addOnOffOption(command, "--softmax", options->softmax, "Switch the softmax over the outputs");
  addActFnOption(command, "--act-fn", options->actFn, "Activation of all hidden layers");
  repeated("--act-fn-layer", options->layerActFns, "Activation of layer K", "K=NAME");
  repeated("--unset", options->unset, "Remove a property", "KEY");
  repeated("--set", options->set, "Set a property", "KEY=VALUE");
  repeated("--note", options->notes, "Add a note line", "TEXT");
  addSaveOptions(command, options->save);
  command.addFlag("-v,--verbose", options->verbose, "Show what the reader says while it reads");
}

}  // namespace mlnn
