#include "tools/commands/InfoCommand.h"

#include <iostream>

#include "analysis/ModelSummary.h"
#include "text/Escape.h"
#include "text/Numbers.h"
#include "tools/Failure.h"
#include "tools/commands/EachFile.h"
#include "tools/files/InputFile.h"
#include "tools/files/ModelLoading.h"
#include "tools/reports/FormatText.h"
#include "tools/reports/Json.h"
#include "tools/reports/Table.h"
#include "tools/shell/Tool.h"

namespace mlnn {
namespace {

struct Options {
  std::vector<std::string> models;
  bool json = false;
  LoadOptions load;
};

CommandHelp help() {
  CommandHelp help;
  help.name = "info";
  help.summary = "Says what is in a model file";
  help.details =
      "Text from the file is shown with control characters escaped. Activations are those that\n"
      "the other commands work with: see --act-fn.\n"
      "\n"
      "Several models are told of one after another, with --json as an array.\n"
      "\n"
      "In an image, weights that take few different values, as after `mlnn reduce`, are stored as\n"
      "a table and a byte or half a byte for each, and those that were quantised as a scale for\n"
      "each row and a byte or half a byte for each weight; the last column says how those of a\n"
      "layer are, or would be. The line `quantised` says to how many bits.";
  help.examples =
      "mlnn info model.txt\n"
      "mlnn info --json model.mlnn | jq .layers";
  help.exitStatus =
      "0  done\n"
      "1  a model does not load; the others are told of all the same\n"
      "2  wrong usage";
  return help;
}

const char* kindOf(const LayerSummary& layer) { return layer.isBatchNorm ? "batch norm" : "plain"; }

std::string textOf(const DbnFeatureDescription& desc) {
  std::string text;
  desc.serialize(text);
  return text;
}

// --- JSON ---

// The bits of a weight, where there is a scale for each row.
Json rowBitsJson(const StoredWeights& weights) {
  return weights.rowBits == 0 ? Json() : Json(weights.rowBits);
}

Json layerJson(const LayerSummary& layer) {
  return {{"kind", layer.isBatchNorm ? "batch_norm" : "plain"},
          {"inputs", layer.inputs},
          {"outputs", layer.outputs},
          {"activation", ActFn::actFnToString(layer.actFn)},
          {"parameters", layer.parameters},
          {"image_weights", layer.imageWeights.form},
          {"image_weight_bytes", layer.imageWeights.bytes},
          {"row_bits", rowBitsJson(layer.imageWeights)}};
}

Json featuresJson(const DbnFeatureDescription& desc) {
  return {{"text", textOf(desc)},
          {"type", int{desc.featType}},
          {"bands", desc.numBands},
          {"left", desc.winSizeLeft},
          {"right", desc.winSizeRight},
          {"deltas", desc.useDeltas},
          {"line_kernels", desc.useLineKernels},
          {"line_kernel_width", desc.lineKernelWidth},
          {"frame_length", desc.frameLen()},
          {"length", desc.featLen()}};
}

Json valuesJson(const Eigen::VectorXf& values) {
  return std::vector<float>(values.data(), values.data() + values.size());
}

void printHead(const ModelFile& file, JsonPrinter& printer) {
  printer.member("file", file.name);
  printer.member("format", formatWord(file.format));
  printer.member("version", file.format == ModelFormat::kText ? Json(file.textVersion) : Json());
  printer.member("bytes", file.length);
}

template <typename Values>
void printArray(const char* key, const Values& values, JsonPrinter& printer) {
  printer.array(key, values.size(), [&](std::size_t i) { return Json(values[i]); });
}

void printProperties(const MultiLayerNNModel& model, JsonPrinter& printer) {
  printer.key("properties");
  printer.beginObject();
  for (const auto& [key, value] : model.props) printer.member(key, value);
  printer.end();
}

// Bytes that are not UTF-8, which JSON cannot hold, become U+FFFD; numbers that are not
// finite become null. What a file may have much of is printed one by one: as JSON in memory it
// takes many times the file.
void printObject(const ModelFile& file, JsonPrinter& printer) {
  const MultiLayerNNModel& model = file.model;
  const ModelSummary summary = summaryOf(model);
  printer.beginObject();
  printHead(file, printer);
  printer.member("inputs", model.numInputs());
  printer.member("outputs", model.numOutputs());
  printer.member("softmax", model.useSoftmax);
  printer.array("layers", summary.layers.size(),
                [&](std::size_t i) { return layerJson(summary.layers[i]); });
  printer.member("parameters", summary.parameters);
  printer.member("memory_bytes", summary.memoryBytes);
  printer.member("checksum", model.checksum());
  printer.member("features", featuresJson(model.featureDesc));
  printer.member("normalisation", {{"minvals", valuesJson(model.deltasNorm.minvals)},
                                   {"normvals", valuesJson(model.deltasNorm.normvals)}});
  printProperties(model, printer);
  printArray("notes", model.notes.lines, printer);
  printArray("loss", model.loss, printer);
  printArray("accuracy", model.accuracy, printer);
  printer.end();
}

// --- Text ---

void printField(const std::string& name, const std::string& value) {
  constexpr std::size_t kWidth = 16;
  std::cout << name << std::string(kWidth - name.size(), ' ') << value << "\n";
}

std::string checksumText(const MultiLayerNNModel& model) {
  return std::to_string(model.checksum());
}

std::string normalisationText(const MelDeltasNorm& norm) {
  if (norm.minvals.size() == 0 && norm.normvals.size() == 0) return "none";
  const auto range = [](const Eigen::VectorXf& values) {
    return generalNumber(static_cast<double>(values.minCoeff()), 6) + " to " +
           generalNumber(static_cast<double>(values.maxCoeff()), 6);
  };
  const bool changesNothing =
      (norm.minvals.array() == 0).all() && (norm.normvals.array() == 1).all();
  if (changesNothing) return "changes nothing";
  return std::to_string(norm.minvals.size()) + " values: minvals " + range(norm.minvals) +
         ", normvals " + range(norm.normvals);
}

std::string curveText(const std::vector<float>& values) {
  if (values.empty()) return "none";
  const auto text = [](float value) { return generalNumber(static_cast<double>(value), 6); };
  return counted(values.size(), "value") + ", first " + text(values.front()) + ", last " +
         text(values.back());
}

std::string featuresText(const DbnFeatureDescription& desc) {
  const std::string length =
      desc.featLen() == 0 ? "length unknown" : std::to_string(desc.featLen()) + " inputs";
  return textOf(desc) + " (" + length + ")";
}

void printLayers(const ModelSummary& summary) {
  using Align = Table::Align;
  Table table({Align::kRight, Align::kRight, Align::kRight, Align::kLeft, Align::kLeft,
               Align::kRight, Align::kLeft},
              {"layer", "inputs", "outputs", "kind", "activation", "parameters", "image weights"});
  for (std::size_t i = 0; i < summary.layers.size(); ++i) {
    const LayerSummary& layer = summary.layers[i];
    table.addRow({std::to_string(i + 1), std::to_string(layer.inputs),
                  std::to_string(layer.outputs), kindOf(layer), ActFn::actFnToString(layer.actFn),
                  std::to_string(layer.parameters), layer.imageWeights.form});
  }
  table.print(std::cout);
}

void printText(const ModelFile& file) {
  const MultiLayerNNModel& model = file.model;
  const ModelSummary summary = summaryOf(model);
  printField("file", escaped(file.name));
  printField("format", formatText(file) + ", " + std::to_string(file.length) + " bytes");
  printField("shape", model.debug_description());
  printField("parameters", std::to_string(summary.parameters) + ", " +
                               std::to_string(summary.memoryBytes) + " bytes in memory");
  const std::string quantized = quantizedText(model);
  if (!quantized.empty()) printField("quantised", quantized);
  printField("checksum", checksumText(model));
  printField("softmax", model.useSoftmax ? "on" : "off");
  printField("features", featuresText(model.featureDesc));
  printField("normalisation", normalisationText(model.deltasNorm));
  printField("loss", curveText(model.loss));
  printField("accuracy", curveText(model.accuracy));
  std::cout << "\n";
  printLayers(summary);
  if (!model.props.empty()) std::cout << "\nproperties\n";
  for (const auto& [key, value] : model.props) {
    std::cout << "  " << shortened(key) << " = " << shortened(value) << "\n";
  }
  if (!model.notes.lines.empty()) std::cout << "\nnotes\n";
  for (const std::string& note : model.notes.lines) std::cout << "  " << shortened(note) << "\n";
}

int showOne(const Options& options) {
  const ModelFile file = loadModel(options.models.front(), options.load);
  if (options.json) {
    JsonPrinter printer(std::cout);
    printObject(file, printer);
  } else {
    printText(file);
  }
  return kDone;
}

int showSeveral(const Options& options) {
  return tellOfEach(
      options.models, options.json,
      [&](const std::string& name) { return loadModel(name, options.load); },
      [](const ModelFile& file) { printText(file); },
      [](const ModelFile& file, JsonPrinter& printer) { printObject(file, printer); },
      [](const ModelFile&) { return kDone; });
}

int run(const Options& options) {
  refuseSecondStandardInput(options.models);
  return options.models.size() == 1 ? showOne(options) : showSeveral(options);
}

}  // namespace

void addInfoCommand(Tool& tool) {
  const auto options = std::make_shared<Options>();
  CommandLine command = tool.addCommand(help(), [options] { return run(*options); });
  command.add("MODEL", options->models, "Models of either format; - is standard input").required();
  command.addFlag("--json", options->json, "Print JSON, with all values and whole texts");
  addLoadOptions(command, options->load);
}

}  // namespace mlnn
