#include "tools/commands/QuantizeCommand.h"

#include <iostream>
#include <limits>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "analysis/QuantizationProof.h"
#include "inference/BiasCorrection.h"
#include "inference/RecordingInputs.h"
#include "model/RowQuantization.h"
#include "text/Escape.h"
#include "text/Numbers.h"
#include "tools/Failure.h"
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
#include "tools/reports/QuantizationReport.h"
#include "tools/shell/Tool.h"

namespace mlnn {
namespace {

constexpr char kLargest[] = "largest";
constexpr char kSquares[] = "squares";

struct Options {
  std::string in;
  std::string out;  // "" when not given
  std::optional<int> bits;
  std::string sweep;  // "4..8"; "" when not given
  std::string scales = kLargest;
  double leave = std::numeric_limits<double>::infinity();
  std::vector<std::string> correct;
  std::vector<std::string> prove;
  bool stacked = false;
  std::string labels;  // "" when not given
  double keep = 0.95;
  bool json = false;
  LoadOptions load;
  SaveOptions save;
};

CommandHelp help() {
  CommandHelp help;
  help.name = "quantize";
  help.summary =
      "Rounds weights to few bits with a scale for each output, or shows what that would do";
  help.details =
      "Each output of each layer gets a scale, and its weights go to the nearest of 2^N - 1 whole\n"
      "multiples of it. OUT is an ordinary model of ordinary floats; as an image it takes 8 or 4\n"
      "bits a weight. Scales come from the largest weight of an output, or with --scales squares\n"
      "are those of the least squared error. --correct takes the mean error over recordings out "
      "of\n"
      "the biases, which keeps much more of a network; other recordings should prove it.\n"
      "\n"
      "With --prove, models run over recordings, in floats and in integers, before anything is\n"
      "written. A table shows how far the values of each layer, before (layer-K-affine) and after\n"
      "its activation (layer-K), and the outputs are from those of IN; then, the share of frames\n"
      "whose best class is still the same and, with --labels, a table in a file with the columns\n"
      "`file` and `label`, how many recordings are decided rightly. OUT is refused where less "
      "than\n"
      "the share that --keep asks for is kept, of best classes or of right recordings.\n"
      "\n"
      "--sweep tries a range of widths and writes nothing. A star marks the smallest that keeps\n"
      "enough.";
  help.examples =
      "mlnn quantize model.txt small.mlnn\n"
      "mlnn quantize model.txt small.mlnn --prove words/*.npy --labels labels.csv\n"
      "mlnn quantize model.txt --sweep 4..8 --prove words/*.npy --labels labels.csv\n"
      "mlnn quantize model.txt tiny.mlnn --bits 4 --scales squares --correct more/*.npy";
  help.exitStatus =
      "0  done, and proved where that was asked for\n"
      "1  IN, a recording or the labels were refused, a weight is not finite, too little is kept,\n"
      "   or OUT cannot be written; OUT is as it was\n"
      "2  wrong usage";
  return help;
}

Widths widthsOf(const Options& options) {
  constexpr int kMin = RowQuantization::kMinBits;
  constexpr int kMax = RowQuantization::kMaxBits;
  if (!options.sweep.empty()) return parseWidths(options.sweep, kMin, kMax, "4..8");
  const int bits = options.bits.value_or(kMax);
  return {bits, bits};
}

void checkUsage(const Options& options) {
  if (options.sweep.empty()) {
    if (options.out.empty() && options.prove.empty()) {
      throw UsageError("OUT is required, unless --prove or --sweep shows what it would be");
    }
    if (!options.out.empty()) refuseLossOfModels({options.in}, options.out, options.save);
    return;
  }
  widthsOf(options);
  if (options.bits) throw UsageError("--sweep tries many widths, so --bits does not go with it");
  if (!options.out.empty()) {
    throw UsageError("--sweep writes no model, but OUT is given: " + inQuotes(options.out));
  }
  if (options.prove.empty()) throw UsageError("--sweep requires --prove");
}

std::vector<std::string> inputsOf(const Options& options) {
  std::vector<std::string> inputs = options.prove;
  inputs.insert(inputs.end(), options.correct.begin(), options.correct.end());
  inputs.insert(inputs.end(), {options.in, options.labels});
  return inputs;
}

// --- Quantising ---

// The input vectors of recordings, one behind the other.
Eigen::MatrixXf vectorsOf(const MultiLayerNNModel& model, const std::vector<std::string>& names,
                          bool stacked) {
  std::vector<Eigen::MatrixXf> blocks;
  Eigen::Index count = 0;
  for (const std::string& name : names) {
    const Eigen::MatrixXf frames = readRecording(name);
    const RecordingInputs inputs = inputsFor(InputSide::of(model), frames.rows(), stacked, name);
    inputs.forEachBlock(frames, [&](const Eigen::Ref<const Eigen::MatrixXf>& block) {
      blocks.emplace_back(block);
      count += block.cols();
    });
  }
  Eigen::MatrixXf vectors(model.numInputs(), count);
  Eigen::Index at = 0;
  for (const Eigen::MatrixXf& block : blocks) {
    vectors.middleCols(at, block.cols()) = block;
    at += block.cols();
  }
  return vectors;
}

RowQuantization quantizationOf(const Options& options) {
  RowQuantization quantization;
  quantization.bits = widthsOf(options).first;
  quantization.scale = options.scales == kSquares ? RowScale::kLeastSquares : RowScale::kLargest;
  quantization.largestError = options.leave;
  return quantization;
}

void tellOfLayers(const std::vector<QuantizedLayer>& layers) {
  for (std::size_t i = 0; i < layers.size(); ++i) {
    const std::string layer = "layer " + std::to_string(i + 1);
    if (layers[i].isFolded) printInfo("the batch norm of " + layer + " became part of its scales");
    if (layers[i].isQuantized) continue;
    printInfo(layer + " stays as it is: its relative error would be " +
              generalNumber(layers[i].relativeError, 3));
  }
}

// Quantises a copy of `original`.
void quantize(const Options& options, const MultiLayerNNModel& original, MultiLayerNNModel& copy) {
  const Eigen::MatrixXf corrections = vectorsOf(original, options.correct, options.stacked);
  std::vector<QuantizedLayer> layers;
  if (quantizeRows(copy, quantizationOf(options), &layers) != 0 ||
      correctBiases(original, copy, corrections) != 0) {
    throw Failure(kCannotBeQuantized);
  }
  tellOfLayers(layers);
}

// --- The proof ---

void addRecordings(const Options& options, const MultiLayerNNModel& model,
                   QuantizationProof& proof) {
  const KnownClasses classes(options.labels, model);
  const InputSide network = InputSide::of(model);
  Progress progress(options.prove.size());
  for (const std::string& name : options.prove) {
    Eigen::MatrixXf frames = readRecording(name);
    progress.beginPart(escaped(name), static_cast<std::size_t>(frames.cols()));
    const RecordingInputs inputs = inputsFor(network, frames.rows(), options.stacked, name);
    const std::optional<Eigen::Index> known = classes.of(name);
    std::string whyNot;
    if (!proof.addRecording(inputName(name), std::move(frames), inputs, known, whyNot,
                            progress.watch())) {
      throw Failure(whyNot);
    }
  }
}

// A bar for so many widths.
Progress progressOf(const QuantizationProof& proof, int widths) {
  return Progress("trying widths", static_cast<std::size_t>(widths) * proof.found().frames *
                                       QuantizationProof::kStepsOfFrame);
}

QuantizationFindings sweep(const Options& options, const MultiLayerNNModel& model) {
  QuantizationProof proof(model, options.keep);
  addRecordings(options, model, proof);
  RowQuantization quantization = quantizationOf(options);
  const Eigen::MatrixXf corrections = vectorsOf(model, options.correct, options.stacked);
  const Widths widths = widthsOf(options);
  Progress progress = progressOf(proof, widths.last - widths.first + 1);
  for (int bits = widths.first; bits <= widths.last; ++bits) {
    quantization.bits = bits;
    std::string whyNot;
    if (!proof.measure(quantization, corrections, whyNot, progress.watch())) throw Failure(whyNot);
  }
  return proof.found();
}

QuantizationFindings prove(const Options& options, const MultiLayerNNModel& original, int bits,
                           const MultiLayerNNModel& changed) {
  QuantizationProof proof(original, options.keep);
  addRecordings(options, original, proof);
  Progress progress = progressOf(proof, 1);
  std::string whyNot;
  if (!proof.measure(bits, changed, whyNot, progress.watch())) throw Failure(whyNot);
  return proof.found();
}

void show(const QuantizationFindings& found, const Options& options) {
  if (options.json) return printJson(quantizationJson(found));
  if (options.sweep.empty()) {
    printProof(found, std::cout);
  } else {
    printWidths(found, std::cout);
  }
}

void refuseLoss(const QuantizationFindings& found, const Options& options) {
  if (options.out.empty() || found.keeps(found.losses.front())) return;
  throw Failure("nothing written: " + std::to_string(found.losses.front().bits) +
                " bits keep less than --keep asks for, which is " +
                generalNumber(found.keep * 100, 6) + " %");
}

int run(const Options& options) {
  checkUsage(options);
  refuseSecondStandardInput(inputsOf(options));
  ModelFile file = loadModel(options.in, options.load);
  if (!options.sweep.empty()) {
    show(sweep(options, file.model), options);
    return kDone;
  }
  MultiLayerNNModel original(file.model);
  original.props = file.model.props;  // which a copy starts without
  quantize(options, original, file.model);
  if (!options.prove.empty()) {
    const QuantizationFindings found =
        prove(options, original, widthsOf(options).first, file.model);
    show(found, options);
    refuseLoss(found, options);
  }
  if (options.out.empty()) return kDone;
  const ModelFormat format = formatToSave(options.out, options.save, file.format);
  saveModel(file.model, options.out, format, options.save);
  return kDone;
}

void addProofOptions(CommandLine& command, Options& options) {
  const Option prove =
      command.add("--prove", options.prove, "Recordings to prove it on").type("FRAMES");
  command.add("--labels", options.labels, "What the recordings are")
      .needs(prove)
      .check(notEmpty)
      .type("CSV");
  command.add("--keep", options.keep, "Share of decisions that a width has to keep")
      .needs(prove)
      .check(numberRange(0, 1))
      .type("SHARE")
      .showDefault();
  command.addFlag("--json", options.json, "Print what was found as JSON").needs(prove);
}

}  // namespace

void addQuantizeCommand(Tool& tool) {
  const auto options = std::make_shared<Options>();
  CommandLine command = tool.addCommand(help(), [options] { return run(*options); });
  command.add("IN", options->in, "Model of either format; - is standard input").required();
  command.add("OUT", options->out, "File to write; - is standard output");
  command.add("--bits", options->bits, "Bits of a weight [8]")
      .inRange(RowQuantization::kMinBits, RowQuantization::kMaxBits)
      .type("N");
  command.add("--sweep", options->sweep, "Try each number of bits")
      .check(notEmpty)
      .type("FIRST..LAST");
  command.add("--scales", options->scales, "How scales are found: largest or squares")
      .oneOf({kLargest, kSquares})
      .type("HOW")
      .showDefault();
  command.add("--leave", options->leave, "Leave layers with a larger relative error")
      .check(numberRange(0))
      .type("ERROR");
  command.add("--correct", options->correct, "Recordings to correct the biases with")
      .type("FRAMES");
  command.addFlag("--stacked", options->stacked, "FRAMES are input vectors, not single frames");
  addProofOptions(command, *options);
  addSaveOptions(command, options->save);
  addLoadOptions(command, options->load);
}

}  // namespace mlnn
