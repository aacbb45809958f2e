#include "tools/commands/NewCommand.h"

#include <memory>
#include <string>
#include <vector>

#include "text/Escape.h"
#include "tools/Failure.h"
#include "tools/commands/LayerSizes.h"
#include "tools/commands/NetworkOptions.h"
#include "tools/files/ModelLoading.h"
#include "tools/files/ModelSaving.h"
#include "tools/shell/Tool.h"

namespace mlnn {
namespace {

constexpr char kFeaturesForm[] =
    "mel_deltas:bands=B,left=L,right=R,deltas=0|1,line_kernels=0|1,line_kernel_width=W";

struct Options {
  std::string sizes;
  std::string out;
  std::string actFn = "relu";
  std::string features;  // "" when not given
  bool softmax = true;
  bool batchNorm = false;
  bool zero = false;
  RandomInit init;
  SaveOptions save;
};

CommandHelp help() {
  CommandHelp help;
  help.name = "new";
  help.summary = "Makes a model from layer sizes";
  help.details =
      "SIZES are the inputs of the model, then the outputs of each layer, separated by commas.\n"
      "Where neither --to nor the name of OUT tells the format, it is text.\n"
      "\n"
      "Weights are drawn from a normal distribution; a seed always gives the same ones, and so\n"
      "does no seed. Biases are 0. The output layer is linear; --act-fn is for the others.\n"
      "\n"
      "--features says what the inputs are, as in\n"
      "mel_deltas:bands=40,left=7,right=7,deltas=1,line_kernels=0,line_kernel_width=0. Their\n"
      "length must be that of the inputs. Without it, the inputs are vectors of which nothing\n"
      "is known.\n"
      "\n"
      "Batch-norm layers get no values for inference, as those are filled after training:\n"
      "until then the outputs do not depend on the inputs, and the model cannot be folded.";
  help.examples =
      "mlnn new 360,512,512,40 model.txt\n"
      "mlnn new 360,512,512,40 model.mlnn --act-fn sigmoid --seed 7 --scale 0.05\n"
      "mlnn new 360,512,40 - --zero --softmax off | mlnn info -";
  help.exitStatus =
      "0  done\n"
      "1  the model would be too large, or OUT cannot be written; OUT is as it was\n"
      "2  wrong usage";
  return help;
}

void addRandomLayers(MultiLayerNNModel& model, const std::vector<int>& sizes,
                     const Options& options) {
  const float scale = options.init.scale;
  applySeed(options.init);
  model.createFirstLayer(sizes[0], sizes[1], scale, options.batchNorm);
  for (std::size_t i = 2; i < sizes.size(); ++i) {
    model.addLayerRndInit(sizes[i], scale, options.batchNorm);
  }
}

void addZeroLayers(MultiLayerNNModel& model, const std::vector<int>& sizes, bool batchNorm) {
  for (std::size_t i = 1; i < sizes.size(); ++i) {
    auto layer = std::make_unique<NNLayer>(sizes[i - 1], sizes[i], batchNorm);
    model.layers.push_back(layer.get());
    layer.release();
  }
}

DbnFeatureDescription featuresOf(const Options& options, int inputs) {
  DbnFeatureDescription desc(DbnFeatureDescription::MelDeltas);
  if (options.features.empty()) return desc;
  if (desc.deserialize(options.features) != 0) {
    throw UsageError("--features: expected " + std::string(kFeaturesForm) + " but found " +
                     inQuotes(options.features));
  }
  if (desc.featLen() == inputs) return desc;
  throw UsageError("--features: " + options.features + " makes input vectors of " +
                   std::to_string(desc.featLen()) + " values, but the model has " +
                   std::to_string(inputs) + " inputs");
}

int run(const Options& options) {
  const std::vector<int> sizes = parseLayerSizes(options.sizes);
  checkNetworkSize(sizes, options.batchNorm);
  MultiLayerNNModel model;
  model.featureDesc = featuresOf(options, sizes.front());
  if (options.zero) {
    addZeroLayers(model, sizes, options.batchNorm);
  } else {
    addRandomLayers(model, sizes, options);
  }
  setActFnOfHiddenLayers(model, actFnOf(options.actFn));
  model.setSoftmax(options.softmax);
  saveModel(model, options.out, formatToSave(options.out, options.save, ModelFormat::kText),
            options.save);
  return kDone;
}

}  // namespace

void addNewCommand(Tool& tool) {
  const auto options = std::make_shared<Options>();
  CommandLine command = tool.addCommand(help(), [options] { return run(*options); });
  command.add("SIZES", options->sizes, "As in 360,512,512,40").required();
  command.add("OUT", options->out, "File to write; - is standard output").required();
  addActFnOption(command, "--act-fn", options->actFn, "Activation of the hidden layers")
      .showDefault();
  addOnOffOption(command, "--softmax", options->softmax, "Softmax over the outputs (default: on)");
  command.add("--features", options->features, "What the inputs are made of")
      .check(notEmpty)
      .type("TEXT");
  command.addFlag("--batch-norm", options->batchNorm, "Make batch-norm layers");
  const Option zero = command.addFlag("--zero", options->zero, "All parameters are 0");
  addScaleOption(command, "--scale", options->init).excludes(zero);
  addSeedOption(command, options->init).excludes(zero);
  addSaveOptions(command, options->save);
}

}  // namespace mlnn
