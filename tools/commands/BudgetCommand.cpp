#include "tools/commands/BudgetCommand.h"

#include <cmath>
#include <iostream>
#include <memory>
#include <optional>

#include "analysis/FrameTimer.h"
#include "analysis/ModelBudget.h"
#include "inference/Evaluation.h"
#include "inference/IntegerFwdPass.h"
#include "inference/PreparedFloats.h"
#include "inference/kernels/KernelChoice.h"
#include "inference/kernels/Kernels.h"
#include "text/Numbers.h"
#include "tools/Failure.h"
#include "tools/commands/NumberRange.h"
#include "tools/files/ModelLoading.h"
#include "tools/reports/Json.h"
#include "tools/reports/Progress.h"
#include "tools/shell/Tool.h"

namespace mlnn {
namespace {

constexpr int kDigits = 3;  // of what is measured

struct Options {
  std::string model;
  double rate = 100;
  double seconds = 1;
  bool json = false;
  LoadOptions load;
};

CommandHelp help() {
  CommandHelp help;
  help.name = "budget";
  help.summary = "Says what a model needs: memory, file sizes, arithmetic and time for a frame";
  help.details =
      "Parameters are all arrays of all layers; of those that a forward pass does not read, such\n"
      "as the learned gamma and beta of a batch-norm layer, a program may want to be rid (see\n"
      "`mlnn fold`). Working memory is what a forward pass keeps beside the model when it is "
      "given\n"
      "one frame at a time. The files are those that `mlnn convert` makes, the text with nine\n"
      "digits. Codes are what `mlnn run --bits` holds; layers where they save little stay.\n"
      "Of an image's codes a pass can make floats once (`ImageFwdPass::prepare`), which single\n"
      "frames meet sooner here; a line tells of their bytes where there are any.\n"
      "Where layers are quantised by rows (`mlnn quantize`), two lines tell what a pass in "
      "integers\n"
      "needs.\n"
      "\n"
      "Kernels are the vectors of the forward pass and the shape of its loops, which follow the\n"
      "processor; MLNN_KERNEL_SHAPE=NAME in the environment takes another shape. Results do not\n"
      "depend on it.\n"
      "\n"
      "The time is measured on this machine with this build: the processor time of one frame a\n"
      "call, median over many runs after a warm-up, over random input vectors and with the\n"
      "parameters in the caches as far as they fit there. Normalisation and stacking of frames\n"
      "are not in it.";
  help.examples =
      "mlnn budget model.mlnn\n"
      "mlnn budget model.txt --rate 62.5\n"
      "mlnn budget --json model.mlnn | jq .time.core_share";
  help.exitStatus =
      "0  done\n"
      "1  the model does not load or cannot be run\n"
      "2  wrong usage";
  return help;
}

// What forward passes over codes need.
struct CodedSizes {
  std::size_t layers;  // of the model
  CodedSize ofEightBits;
  CodedSize ofFourBits;
};

// What a pass in integers needs.
struct IntegerNeeds {
  IntegerSize size;
  FrameTime time;
};

// What the command tells.
struct Needs {
  ModelBudget budget;
  CodedSizes codes;
  uint64_t preparedBytes;  // of an image, by this processor
  FileSizes files;
  FrameTime time;
  std::optional<IntegerNeeds> integers;  // where layers are quantised by rows
};

// --- Text ---

void printField(const std::string& name, const std::string& value) {
  constexpr std::size_t kWidth = 18;
  std::cout << name << std::string(kWidth - name.size(), ' ') << value << "\n";
}

std::string bytesText(uint64_t bytes) { return std::to_string(bytes) + " bytes"; }

std::string fileText(const std::optional<uint64_t>& bytes) {
  return bytes ? bytesText(*bytes) : "not possible";
}

std::string microseconds(double seconds) { return generalNumber(seconds * 1e6, kDigits); }

std::string codesText(const CodedSize& size, std::size_t layers) {
  return bytesText(size.bytes) + " in place of what a forward pass reads, " +
         std::to_string(size.codedLayers) + " of " + counted(layers, "layer") + " coded";
}

std::string timeText(const FrameTime& time) {
  return microseconds(time.median) + " us a frame (median; fastest " + microseconds(time.fastest) +
         ", slowest " + microseconds(time.slowest) + ", " + counted(time.frames, "frame") + ")";
}

void printIntegers(const IntegerNeeds& needs, std::size_t layers) {
  printField("in integers", bytesText(needs.size.bytes) +
                                " in place of what a forward pass reads, working memory " +
                                bytesText(needs.size.workingBytes) + ", " +
                                std::to_string(needs.size.integerLayers) + " of " +
                                counted(layers, "layer"));
  printField("time in integers", timeText(needs.time));
}

std::string shapeText(const KernelShape& shape) {
  return std::string("shape ") + shape.name + " (tiles of " + std::to_string(shape.tileFrames) +
         " frames, " + std::to_string(shape.inputsAtOnce) +
         " inputs at once; weights stream from " + bytesText(shape.secondLevelBytes) + " on)";
}

void printText(const Needs& needs, double rate) {
  const ModelBudget& budget = needs.budget;
  printField("parameters", bytesText(budget.parameterBytes) + ", of which a forward pass reads " +
                               std::to_string(budget.readBytes));
  printField("working memory", bytesText(budget.workingBytes) + " for a forward pass");
  printField("on a device", bytesText(budget.deviceBytes) + " for frames that come one by one");
  printField("image file", fileText(needs.files.image));
  printField("image weights", budget.weightForms);
  if (!budget.quantized.empty()) printField("quantised", budget.quantized);
  printField("text file", fileText(needs.files.text));
  printField("multiply-adds", std::to_string(budget.multiplyAdds) + " a frame");
  printField("activations", std::to_string(budget.activations) + " a frame");
  printField("codes of 8 bits", codesText(needs.codes.ofEightBits, needs.codes.layers));
  printField("codes of 4 bits", codesText(needs.codes.ofFourBits, needs.codes.layers));
  if (needs.preparedBytes > 0) {
    printField("prepared image", bytesText(needs.preparedBytes) + " of floats besides");
  }
  printField("kernels", std::string(bestKernels().name) + ", " + shapeText(kernelShape()));
  if (needs.integers) printIntegers(*needs.integers, needs.codes.layers);
  printField("time", timeText(needs.time));
  printField("load", generalNumber(100 * needs.time.median * rate, kDigits) + " % of one core at " +
                         generalNumber(rate, kExactDigits) + " frames a second");
}

// --- JSON ---

Json fileJson(const std::optional<uint64_t>& bytes) { return bytes ? Json(*bytes) : Json(); }

Json codesJson(const CodedSize& size) {
  return {{"bytes", size.bytes}, {"coded_layers", size.codedLayers}};
}

Json timeJson(const FrameTime& time, double rate) {
  return {{"median_seconds", time.median},
          {"fastest_seconds", time.fastest},
          {"slowest_seconds", time.slowest},
          {"frames", time.frames},
          {"rate", rate},
          {"core_share", time.median * rate}};
}

Json kernelsJson(const KernelShape& shape) {
  return {{"vectors", bestKernels().name},
          {"shape", shape.name},
          {"tile_frames", shape.tileFrames},
          {"inputs_at_once", shape.inputsAtOnce},
          {"streaming_bytes", shape.secondLevelBytes}};
}

Json integersJson(const std::optional<IntegerNeeds>& needs, double rate) {
  if (!needs) return nullptr;
  return {{"bytes", needs->size.bytes},
          {"working_bytes", needs->size.workingBytes},
          {"integer_layers", needs->size.integerLayers},
          {"time", timeJson(needs->time, rate)}};
}

Json budgetJson(const std::string& name, const Needs& needs, double rate) {
  const ModelBudget& budget = needs.budget;
  return {{"file", name},
          {"parameter_bytes", budget.parameterBytes},
          {"read_bytes", budget.readBytes},
          {"working_bytes", budget.workingBytes},
          {"device_bytes", budget.deviceBytes},
          {"image_bytes", fileJson(needs.files.image)},
          {"image_weights", budget.weightForms},
          {"text_bytes", fileJson(needs.files.text)},
          {"multiply_adds", budget.multiplyAdds},
          {"activations", budget.activations},
          {"codes_of_8_bits", codesJson(needs.codes.ofEightBits)},
          {"codes_of_4_bits", codesJson(needs.codes.ofFourBits)},
          {"prepared_bytes", needs.preparedBytes},
          {"in_integers", integersJson(needs.integers, rate)},
          {"kernels", kernelsJson(kernelShape())},
          {"time", timeJson(needs.time, rate)}};
}

// Measures a model, or a pass.
template <typename Runs>
FrameTime measure(Runs& runs, double seconds) {
  Progress progress("measuring", kTimingSteps);
  std::string whyNot;
  const std::optional<FrameTime> time = timeFrames(runs, seconds, whyNot, progress.watch());
  return orFail(time, whyNot);
}

CodedSize codesOf(const MultiLayerNNModel& model, int bits) {
  return orFail(codedSizeOf(model, bits), kCannotBeRun);
}

IntegerNeeds integersOf(const MultiLayerNNModel& model, double seconds) {
  const std::unique_ptr<IntegerFwdPass> pass = IntegerFwdPass::create(model);
  if (pass == nullptr) throw Failure(kCannotBeRun);
  return {orFail(integerSizeOf(model), kCannotBeRun), measure(*pass, seconds)};
}

Needs needsOf(MultiLayerNNModel& model, double seconds) {
  Needs needs;
  needs.time = measure(model, seconds);
  needs.budget = budgetOf(model);
  needs.codes = {model.layers.size(), codesOf(model, 8), codesOf(model, 4)};
  needs.preparedBytes = preparedBytesOf(model);
  needs.files = fileSizesOf(model);
  if (!needs.budget.quantized.empty()) needs.integers = integersOf(model, seconds);
  return needs;
}

int run(const Options& options) {
  ModelFile file = loadModel(options.model, options.load);
  const Needs needs = needsOf(file.model, options.seconds);
  if (options.json) {
    printJson(budgetJson(file.name, needs, options.rate));
  } else {
    printText(needs, options.rate);
  }
  return kDone;
}

}  // namespace

void addBudgetCommand(Tool& tool) {
  const auto options = std::make_shared<Options>();
  CommandLine command = tool.addCommand(help(), [options] { return run(*options); });
  command.add("MODEL", options->model, "Model of either format; - is standard input").required();
  command.add("--rate", options->rate, "Frames a second that the load is given for")
      .check(numberRange(1e-3, 1e9))
      .type("FPS")
      .showDefault();
  command.add("--seconds", options->seconds, "How long to measure")
      .check(numberRange(1e-3, 3600))
      .type("S")
      .showDefault();
  command.addFlag("--json", options->json, "Print JSON");
  addLoadOptions(command, options->load);
}

}  // namespace mlnn
