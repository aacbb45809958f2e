#include "tools/commands/FoldCommand.h"

#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include "analysis/BehaviourDiff.h"
#include "layers/LayerArrays.h"
#include "text/Numbers.h"
#include "tools/Failure.h"
#include "tools/commands/Recordings.h"
#include "tools/commands/Tolerance.h"
#include "tools/files/InputFile.h"
#include "tools/files/ModelLoading.h"
#include "tools/files/ModelSaving.h"
#include "tools/files/OwnInputs.h"
#include "tools/reports/Json.h"
#include "tools/reports/Table.h"
#include "tools/shell/Tool.h"

namespace mlnn {
namespace {

constexpr int kDigits = 3;  // of differences in the table

struct Options {
  std::string in;
  std::string out;
  std::vector<std::string> frames;  // none: nothing is to be proved
  bool stacked = false;
  double tolerance = kDefaultTolerance;
  bool json = false;
  LoadOptions load;
  SaveOptions save;
};

CommandHelp help() {
  CommandHelp help;
  help.name = "fold";
  help.summary = "Turns batch-norm layers into plain layers that compute the same";
  help.details =
      "Each row of the weights is multiplied by its gamma_inf, and the bias becomes beta_inf.\n"
      "Layers that are plain already stay as they are, with a warning. An image keeps the four\n"
      "vectors that a layer was folded from; a text has no place for them.\n"
      "\n"
      "With --prove, both models run on the frames before anything is written. A table shows for\n"
      "each layer, before (layer-K-affine) and after its activation (layer-K), and for the\n"
      "outputs, how far the folded model's values are from those of the other: the largest\n"
      "absolute difference, the root of the mean square, and the largest difference in units in\n"
      "the last place (which is large where a value is close to 0). A largest absolute difference\n"
      "over the tolerance, anywhere, is a failure.";
  help.examples =
      "mlnn fold model.txt folded.mlnn\n"
      "mlnn fold model.txt folded.txt --prove words/*.npy --tolerance 1e-5";
  help.exitStatus =
      "0  done, and proved where that was asked for\n"
      "1  IN does not load, has a layer that cannot be folded, or computes something else when\n"
      "   folded, or OUT cannot be written; OUT is as it was\n"
      "2  wrong usage";
  return help;
}

std::vector<NNLayer*> batchNormLayers(const MultiLayerNNModel& model) {
  std::vector<NNLayer*> found;
  for (NNLayer* layer : model.layers) {
    if (layer->isBatchNorm) found.push_back(layer);
  }
  return found;
}

// --- The proof ---

// The stages that folding can change: all but the inputs.
std::vector<StageDifference> foldedStages(const BehaviourDiff& diff) {
  return {diff.stages().begin() + 1, diff.stages().end()};
}

void printTable(const BehaviourDiff& diff) {
  constexpr auto kLeft = Table::Align::kLeft;
  constexpr auto kRight = Table::Align::kRight;
  Table table({kLeft, kRight, kRight, kRight, kRight},
              {"stage", "values", "largest", "rms", "ulp"});
  for (const StageDifference& stage : foldedStages(diff)) {
    const Difference& difference = stage.difference;
    table.addRow({stage.stage, std::to_string(stage.valuesA),
                  generalNumber(difference.largest(), kDigits),
                  generalNumber(difference.rootMeanSquare(), kDigits),
                  std::to_string(difference.largestUlps())});
  }
  table.print(std::cout);
  std::cout << "same best class in " << diff.sameDecisions() << " of "
            << counted(diff.frames(), "frame") << "\n";
}

Json placeJson(const FramePlace& place) {
  return {{"recording", place.recording}, {"frame", place.frame}, {"unit", place.unit}};
}

void printJson(const BehaviourDiff& diff, const Options& options) {
  Json stages = Json::array();
  for (const StageDifference& stage : foldedStages(diff)) {
    const Difference& difference = stage.difference;
    stages.push_back({{"stage", stage.stage},
                      {"values", stage.valuesA},
                      {"largest", difference.largest()},
                      {"rms", difference.rootMeanSquare()},
                      {"ulp", difference.largestUlps()},
                      {"at", placeJson(diff.placeOfLargest(stage))}});
  }
  const Json report = {{"tolerance", options.tolerance},
                       {"proved", diff.firstBeyond(options.tolerance) == nullptr},
                       {"recordings", diff.recordings()},
                       {"frames", diff.frames()},
                       {"same_best_class", diff.sameDecisions()},
                       {"stages", stages}};
  mlnn::printJson(report);
}

void prove(MultiLayerNNModel& before, MultiLayerNNModel& after, const Options& options) {
  const BehaviourDiff diff = compareBehaviour(before, after, options.frames, options.stacked);
  if (options.json) {
    printJson(diff, options);
  } else {
    printTable(diff);
  }
  const StageDifference* beyond = diff.firstBeyond(options.tolerance);
  const std::string tolerance = "the tolerance of " + generalNumber(options.tolerance, kDigits);
  if (beyond == nullptr) {
    if (!options.json) std::cout << "no difference is over " << tolerance << "\n";
    return;
  }
  const FramePlace place = diff.placeOfLargest(*beyond);
  throw Failure("nothing written: " + beyond->stage + " differs by " +
                generalNumber(beyond->difference.largest(), kDigits) + " in frame " +
                std::to_string(place.frame) + ", unit " + std::to_string(place.unit) + " of " +
                inputName(place.recording) + ", which is over " + tolerance);
}

// --- The fold ---

// What the layers were folded from is of no use to them any more.
void dropBatchNormVectors(const std::vector<NNLayer*>& layers) {
  for (NNLayer* layer : layers) {
    for (const LayerVector& vector : kLayerVectors) {
      if (vector.inBatchNorm) vector.of(*layer).resize(0);
    }
  }
}

void refuseDoubleUse(const Options& options) {
  if (options.frames.empty()) return;
  if (options.out == kStandardStream) {
    throw UsageError("the proof goes to standard output, so OUT cannot go there too");
  }
  std::vector<std::string> inputs = options.frames;
  inputs.push_back(options.in);
  refuseSecondStandardInput(inputs);
}

void refuseLossOfInputs(const Options& options) {
  refuseLossOfModels({options.in}, options.out, options.save);
  OwnInputs inputs;
  for (const std::string& frames : options.frames) inputs.add(frames, "frames");
  inputs.refuse(options.out);
}

int run(const Options& options) {
  refuseDoubleUse(options);
  refuseLossOfInputs(options);
  ModelFile file = loadModel(options.in, options.load);
  MultiLayerNNModel& model = file.model;
  MultiLayerNNModel before;
  if (!options.frames.empty()) before = model;
  const std::vector<NNLayer*> folded = batchNormLayers(model);
  if (model.convBatchNorm() != 0) throw Failure("nothing written: the model cannot be folded");
  if (!options.frames.empty()) prove(before, model, options);
  const ModelFormat format = formatToSave(options.out, options.save, file.format);
  if (format == ModelFormat::kText) dropBatchNormVectors(folded);
  saveModel(model, options.out, format, options.save);
  return kDone;
}

}  // namespace

void addFoldCommand(Tool& tool) {
  const auto options = std::make_shared<Options>();
  CommandLine command = tool.addCommand(help(), [options] { return run(*options); });
  command.add("IN", options->in, "Model of either format; - is standard input").required();
  command.add("OUT", options->out, "File to write; - is standard output").required();
  const Option frames =
      command.add("--prove", options->frames, "Recordings to run both models on").type("FRAMES");
  addToleranceOption(command, options->tolerance).needs(frames);
  command.addFlag("--stacked", options->stacked, "FRAMES are input vectors, not single frames")
      .needs(frames);
  command.addFlag("--json", options->json, "Print the proof as JSON").needs(frames);
  addSaveOptions(command, options->save);
  addLoadOptions(command, options->load);
}

}  // namespace mlnn
