#include "tools/commands/DiffCommand.h"

#include <iostream>

#include "tools/commands/Recordings.h"
#include "tools/commands/Tolerance.h"
#include "tools/files/InputFile.h"
#include "tools/files/ModelLoading.h"
#include "tools/reports/DiffReport.h"
#include "tools/reports/Json.h"
#include "tools/shell/Tool.h"

namespace mlnn {
namespace {

constexpr int kDifferent = 1;
constexpr int kTrouble = 2;

struct Options {
  std::string a;
  std::string b;
  std::vector<std::string> frames;
  bool stacked = false;
  double tolerance = kDefaultTolerance;
  bool json = false;
  bool quiet = false;
  LoadOptions load;
};

CommandHelp help() {
  CommandHelp help;
  help.name = "diff";
  help.summary = "Tells where two models differ: in what they say, in numbers, in behaviour";
  help.details =
      "What the models say: softmax, feature description, normalisation, notes, properties,\n"
      "training curves, and the shape, kind and activation of each layer. Whether a file is text\n"
      "or an image makes no difference.\n"
      "\n"
      "Numbers: the parameters of each layer that both have, value by value, with the largest and\n"
      "the root-mean-square difference, the largest in units in the last place, and the cosine.\n"
      "Of a batch-norm layer and a plain one, which store different arrays, the affine maps are\n"
      "compared too: weights times gamma_inf and beta_inf against weights and bias. They count as\n"
      "different in numbers all the same. Where the numbers of one model are those of the other,\n"
      "quantised as by `mlnn quantize`, a line says so, and to how many bits.\n"
      "\n"
      "Behaviour, with --frames: both models run over the recordings, each on the input vectors\n"
      "that its own description makes of them. It is the same when the outputs agree within the\n"
      "tolerance. The first stage that differs by more is named: inputs; layer-K-affine and\n"
      "layer-K, before and after the activation; outputs. Frames and units count from 0.";
  help.examples =
      "mlnn diff old.txt new.txt\n"
      "mlnn diff model.txt folded.mlnn --frames words/*.npy\n"
      "mlnn diff --json a.mlnn b.mlnn | jq .numbers";
  help.exitStatus =
      "0  the models are the same\n"
      "1  they differ in something\n"
      "2  trouble: wrong usage, or a file was refused";
  help.failureStatus = kTrouble;
  return help;
}

std::vector<std::string> inputsOf(const Options& options) {
  std::vector<std::string> inputs = options.frames;
  inputs.insert(inputs.end(), {options.a, options.b});
  return inputs;
}

int run(const Options& options) {
  refuseSecondStandardInput(inputsOf(options));
  ModelFile a = loadModel(options.a, options.load);
  ModelFile b = loadModel(options.b, options.load);
  ModelDiff diff;
  diff.nameA = a.name;
  diff.nameB = b.name;
  diff.tolerance = options.tolerance;
  diff.statements = compareStatements(a.model, b.model);
  diff.layers = compareNumbers(a.model, b.model);
  diff.quantization = quantizationBetween(a.model, b.model);
  if (!options.frames.empty()) {
    diff.behaviour = compareBehaviour(a.model, b.model, options.frames, options.stacked);
  }
  if (options.json) {
    printJson(diffJson(diff));
  } else if (!options.quiet) {
    printDiff(diff, std::cout);
  }
  return diff.isSame() ? kDone : kDifferent;
}

}  // namespace

void addDiffCommand(Tool& tool) {
  const auto options = std::make_shared<Options>();
  CommandLine command = tool.addCommand(help(), [options] { return run(*options); });
  command.add("A", options->a, "Model of either format; - is standard input").required();
  command.add("B", options->b, "The other model").required();
  const Option frames =
      command.add("--frames", options->frames, "Recordings to compare the behaviour over")
          .type("FRAMES");
  command.addFlag("--stacked", options->stacked, "FRAMES are input vectors, not single frames")
      .needs(frames);
  addToleranceOption(command, options->tolerance).needs(frames);
  const Option json = command.addFlag("--json", options->json, "Print JSON");
  command.addFlag("-q,--quiet", options->quiet, "Print nothing; the exit status tells")
      .excludes(json);
  addLoadOptions(command, options->load);
}

}  // namespace mlnn
