#include "tools/commands/AverageCommand.h"

#include <cmath>
#include <memory>
#include <utility>
#include <vector>

#include "analysis/ModelAverage.h"
#include "text/Escape.h"
#include "text/Numbers.h"
#include "tools/Failure.h"
#include "tools/files/InputFile.h"
#include "tools/files/ModelLoading.h"
#include "tools/files/ModelSaving.h"
#include "tools/reports/Progress.h"
#include "tools/shell/Tool.h"

namespace mlnn {
namespace {

struct Options {
  std::vector<std::string> files;  // IN... OUT
  std::vector<double> weights;     // one for each model, or none
  LoadOptions load;
  SaveOptions save;
};

CommandHelp help() {
  CommandHelp help;
  help.name = "average";
  help.summary = "Writes the weighted mean of models of one shape";
  help.details =
      "Without --weights all models count the same. Weights need not add up to 1.\n"
      "\n"
      "The models must have the same number of layers, each of the same kind, shape and\n"
      "activation, and all or none a softmax. Everything that is not a parameter (notes,\n"
      "properties, curves, feature description, normalisation) is the first model's; a text\n"
      "gets a note line about the mean besides.\n"
      "\n"
      "A parameter that is the same to the bit in all models stays so, whatever the weights.\n"
      "So the mean of a model and any number of its copies is that model, and then there is no\n"
      "note line either. Two models of the same weight have the exact mean, rounded once.";
  help.examples =
      "mlnn average epoch-10.txt epoch-11.txt epoch-12.txt mean.txt\n"
      "mlnn average old.mlnn new.mlnn mean.mlnn --weights 0.25,0.75";
  help.exitStatus =
      "0  done\n"
      "1  a model does not load or has another shape, or OUT cannot be written; OUT is as it was\n"
      "2  wrong usage";
  return help;
}

std::vector<double> weightsOf(const Options& options, std::size_t models) {
  if (options.weights.empty()) return std::vector<double>(models, 1.0);
  if (options.weights.size() != models) {
    throw UsageError("--weights: expected " + counted(models, "weight") +
                     ", one for each model, but found " + std::to_string(options.weights.size()));
  }
  for (const double weight : options.weights) {
    if (std::isfinite(weight) && weight > 0) continue;
    throw UsageError("--weights: expected numbers above 0 but found " + generalNumber(weight, 6));
  }
  return options.weights;
}

// What the parts of two models that are not averaged say against taking their mean.
void warnOfOtherFeatures(const MultiLayerNNModel& first, const ModelFile& file) {
  const auto textOf = [](const MultiLayerNNModel& model) {
    std::string text;
    model.featureDesc.serialize(text);
    return text;
  };
  const auto warn = [&file](const std::string& what) {
    printWarning(inputName(file.name) + " has another " + what +
                 " than the first model, whose stays");
  };
  if (textOf(file.model) != textOf(first)) warn("feature description");
  MelDeltasNorm norm = file.model.deltasNorm;
  MelDeltasNorm firstNorm = first.deltasNorm;
  norm.allocIfNeeded();  // no arrays mean the same as arrays that change nothing
  firstNorm.allocIfNeeded();
  if (norm.minvals != firstNorm.minvals || norm.normvals != firstNorm.normvals) {
    warn("normalisation");
  }
}

void check(const MultiLayerNNModel& first, const ModelFile& file, const std::string& firstName) {
  const std::string why = whyNoMean(first, file.model);
  if (!why.empty()) {
    throw Failure(inputName(file.name) + " has another shape than " + inputName(firstName) + ": " +
                  why);
  }
  warnOfOtherFeatures(first, file);
}

std::string noteAbout(const std::vector<double>& weights) {
  std::string note = "mean of " + counted(weights.size(), "model") + ", weights ";
  for (std::size_t i = 0; i < weights.size(); ++i) {
    note += (i == 0 ? "" : ",") + generalNumber(weights[i], 6);
  }
  return note;
}

// Loads the model, and makes sure that it has a mean with the first one, if there is one yet.
ModelFile loadNext(const std::string& name, const LoadOptions& options,
                   const MultiLayerNNModel* first, const std::string& firstName) {
  ModelFile file = loadModel(name, options);
  if (first != nullptr) check(*first, file, firstName);
  return file;
}

int run(const Options& options) {
  const std::vector<std::string> in(options.files.begin(), options.files.end() - 1);
  const std::string& out = options.files.back();
  refuseSecondStandardInput(in);
  refuseLossOfModels(in, out, options.save);
  const std::vector<double> weights = weightsOf(options, in.size());
  const std::vector<float> shares = sharesOf(weights);
  Progress progress(in.size());
  ModelAverage average;
  ModelFormat firstFormat = ModelFormat::kText;
  for (std::size_t i = 0; i < in.size(); ++i) {
    const MultiLayerNNModel* first = i == 0 ? nullptr : &average.first();
    progress.beginPart("averaging " + escaped(in[i]), 1);
    ModelFile file = loadNext(in[i], options.load, first, in[0]);
    if (i == 0) firstFormat = file.format;
    average.add(std::move(file.model), shares[i]);
    progress.advance();
  }
  progress.hide();
  const bool allAgree = average.allAgree();
  MultiLayerNNModel mean = average.take();
  const ModelFormat format = formatToSave(out, options.save, firstFormat);
  if (!allAgree && format == ModelFormat::kText) mean.notes.lines.push_back(noteAbout(weights));
  saveModel(mean, out, format, options.save);
  return kDone;
}

}  // namespace

void addAverageCommand(Tool& tool) {
  const auto options = std::make_shared<Options>();
  CommandLine command = tool.addCommand(help(), [options] { return run(*options); });
  // One option for all names: the parser would leave none of them for an OUT of its own.
  constexpr int kAtLeast = 2;
  command
      .add("FILES", options->files,
           "IN... OUT: models of either format, then the file to write; - is standard "
           "input or output")
      .required()
      .atLeast(kAtLeast);
  command
      .add("--weights", options->weights,
           "How much each model counts: numbers above 0, separated by commas")
      .separatedBy(',')
      .oneValueEach()
      .type("W");
  addSaveOptions(command, options->save);
  addLoadOptions(command, options->load);
}

}  // namespace mlnn
