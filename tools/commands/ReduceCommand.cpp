#include "tools/commands/ReduceCommand.h"

#include <algorithm>
#include <iostream>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "analysis/PrecisionSweep.h"
#include "inference/Evaluation.h"
#include "text/Escape.h"
#include "text/Numbers.h"
#include "tools/Failure.h"
#include "tools/commands/CoarseGrid.h"
#include "tools/commands/KnownClasses.h"
#include "tools/commands/NumberRange.h"
#include "tools/commands/Recordings.h"
#include "tools/commands/Widths.h"
#include "tools/files/Frames.h"
#include "tools/files/InputFile.h"
#include "tools/files/ModelLoading.h"
#include "tools/files/ModelSaving.h"
#include "tools/reports/Json.h"
#include "tools/reports/Progress.h"
#include "tools/reports/SweepReport.h"
#include "tools/shell/Tool.h"

namespace mlnn {
namespace {

constexpr int kMaxBits = 31;

struct Options {
  std::string in;
  std::string out;  // "" when not given
  std::optional<int> bits;
  std::string sweep;  // "2..16"; "" when not given
  std::vector<std::string> frames;
  bool stacked = false;
  std::string labels;  // "" when not given
  double keep = 0.99;
  bool json = false;
  LoadOptions load;
  SaveOptions save;
};

CommandHelp help() {
  CommandHelp help;
  help.name = "reduce";
  help.summary = "Snaps a model's parameters to a grid of few bits, or shows what that would do";
  help.details =
      "--bits snaps all weights and biases to one grid of 2^N steps from the smallest to the\n"
      "largest of them, always downwards, and writes OUT. The vectors of batch-norm layers stay\n"
      "as they are, so fold these first.\n"
      "\n"
      "--sweep tries a range of widths and writes nothing. Its table shows, for each width, the\n"
      "largest and the mean absolute error of a parameter, the largest difference of an output,\n"
      "and the share of frames whose best class is still the same. With --labels, a table in a\n"
      "file with the columns `file` and `label`, it shows too how many recordings are decided\n"
      "rightly, by the largest sum of log posteriors, and at which width accuracy falls: the\n"
      "largest one at which fewer are than without reduction. A star marks the smallest width\n"
      "that keeps the share of best classes that --keep asks for.";
  help.examples =
      "mlnn reduce model.txt small.mlnn --bits 8\n"
      "mlnn reduce model.txt --sweep 2..16 --frames words/*.npy --labels labels.csv\n"
      "mlnn reduce model.txt --sweep 4..12 --frames words/*.npy --keep 0.999 --json";
  help.exitStatus =
      "0  done, whether or not a width keeps what --keep asks for\n"
      "1  IN, a recording or the labels were refused, or OUT cannot be written; OUT is as it was\n"
      "2  wrong usage";
  return help;
}

Widths widthsOf(const std::string& text) { return parseWidths(text, 0, kMaxBits, "2..16"); }

void checkUsage(const Options& options) {
  if (options.bits.has_value() == !options.sweep.empty()) {
    throw UsageError("expected either --bits, to write a model, or --sweep, to show a table");
  }
  if (options.bits && options.out.empty()) throw UsageError("OUT is required with --bits");
  if (options.bits) return refuseLossOfModels({options.in}, options.out, options.save);
  if (!options.out.empty()) {
    throw UsageError("--sweep writes no model, but OUT is given: " + inQuotes(options.out));
  }
  if (options.frames.empty()) throw UsageError("--sweep requires --frames");
}

void warnOfBatchNorm(const MultiLayerNNModel& model) {
  const auto number = std::count_if(model.layers.begin(), model.layers.end(),
                                    [](const NNLayer* layer) { return layer->isBatchNorm; });
  if (number == 0) return;
  printWarning("the vectors of " + counted(static_cast<std::size_t>(number), "batch-norm layer") +
               " keep all their bits (fold the model before)");
}

std::vector<std::string> inputsOf(const Options& options) {
  std::vector<std::string> inputs = options.frames;
  inputs.insert(inputs.end(), {options.in, options.labels});
  return inputs;
}

int reduce(const Options& options, ModelFile& file) {
  warnOfCoarseGrid(file.model, *options.bits);
  file.model.retainPrecisionBits(*options.bits);
  const ModelFormat format = formatToSave(options.out, options.save, file.format);
  saveModel(file.model, options.out, format, options.save);
  return kDone;
}

// --- The sweep ---

void addRecordings(const Options& options, const KnownClasses& classes, const InputSide& network,
                   PrecisionSweep& sweep) {
  Progress progress(options.frames.size());
  for (const std::string& name : options.frames) {
    Eigen::MatrixXf frames = readRecording(name);
    progress.beginPart(escaped(name), static_cast<std::size_t>(frames.cols()));
    const std::optional<Eigen::Index> known = classes.of(name);
    const RecordingInputs inputs = inputsFor(network, frames.rows(), options.stacked, name);
    if (!sweep.addRecording(std::move(frames), inputs, known, progress.watch())) {
      throw Failure(kCannotBeRun);
    }
  }
}

SweepFindings sweep(const Options& options, MultiLayerNNModel& model) {
  const Widths widths = widthsOf(options.sweep);
  const KnownClasses classes(options.labels, model);
  PrecisionSweep sweep(model);
  addRecordings(options, classes, InputSide::of(model), sweep);
  SweepFindings found;
  found.keep = options.keep;
  found.isPosterior = model.useSoftmax;
  found.recordings = sweep.recordings();
  found.frames = sweep.frames();
  if (classes.areKnown()) found.rightRecordings = sweep.rightRecordings();
  const auto steps = static_cast<std::size_t>(widths.last - widths.first) + 1;
  Progress progress("trying widths", steps * sweep.frames());
  for (int bits = widths.first; bits <= widths.last; ++bits) {
    found.add(sweep.measure(bits, progress.watch()));
  }
  return found;
}

int run(const Options& options) {
  checkUsage(options);
  if (!options.bits) widthsOf(options.sweep);
  refuseSecondStandardInput(inputsOf(options));
  ModelFile file = loadModel(options.in, options.load);
  warnOfBatchNorm(file.model);
  if (options.bits) return reduce(options, file);
  const SweepFindings found = sweep(options, file.model);
  if (options.json) {
    printJson(sweepJson(found));
  } else {
    printSweep(found, std::cout);
  }
  return kDone;
}

}  // namespace

void addReduceCommand(Tool& tool) {
  const auto options = std::make_shared<Options>();
  CommandLine command = tool.addCommand(help(), [options] { return run(*options); });
  command.add("IN", options->in, "Model of either format; - is standard input").required();
  command.add("OUT", options->out, "File to write with --bits; - is standard output");
  command.add("--bits", options->bits, "Reduce to N bits and write OUT")
      .inRange(0, kMaxBits)
      .type("N");
  const Option sweep = command.add("--sweep", options->sweep, "Try each number of bits")
                           .check(notEmpty)
                           .type("FIRST..LAST");
  command.add("--frames", options->frames, "Recordings to try them on").needs(sweep).type("FRAMES");
  command.addFlag("--stacked", options->stacked, "FRAMES are input vectors, not single frames")
      .needs(sweep);
  command.add("--labels", options->labels, "What the recordings are")
      .needs(sweep)
      .check(notEmpty)
      .type("CSV");
  command.add("--keep", options->keep, "Share of best classes that a width has to keep")
      .needs(sweep)
      .check(numberRange(0, 1))
      .type("SHARE")
      .showDefault();
  command.addFlag("--json", options->json, "Print the table as JSON").needs(sweep);
  addSaveOptions(command, options->save);
  addLoadOptions(command, options->load);
}

}  // namespace mlnn
