#include "tools/commands/ConvertCommand.h"

#include "tools/files/ModelLoading.h"
#include "tools/files/ModelSaving.h"
#include "tools/shell/Tool.h"

namespace mlnn {
namespace {

struct Options {
  std::string in;
  std::string out;
  LoadOptions load;
  SaveOptions save;
};

CommandHelp help() {
  CommandHelp help;
  help.name = "convert";
  help.summary = "Writes a model as text, as a binary image, or as an image in a C source";
  help.details =
      "Where OUT has no ending and --to is not given, the format is the other one than IN has.\n"
      "\n"
      "The two formats do not hold the same things. What OUT cannot hold is named on standard\n"
      "error before anything is written. What can be kept in another form is: in a text, the\n"
      "feature description and the normalisation as note lines, and the activation that the\n"
      "hidden batch-norm layers share as the property hidden_act_fn. Values that are not finite "
      "are\n"
      "refused in a text, which could not be read again.\n"
      "\n"
      "A C source holds the image as an array, for devices without a file system: see\n"
      "examples/rom. The array of words.c is called words_image, its length in bytes\n"
      "words_image_length; --symbol gives another name. No command reads it back, so it may not "
      "replace IN.";
  help.examples =
      "mlnn convert model.txt model.mlnn\n"
      "mlnn convert --strict model.mlnn model.txt\n"
      "mlnn convert --to ascii --precision 6 model.mlnn - | less\n"
      "mlnn convert --symbol digits model.mlnn model.c";
  help.exitStatus =
      "0  done\n"
      "1  IN does not load, OUT cannot be written, or --strict and something would be lost;\n"
      "   OUT is as it was\n"
      "2  wrong usage";
  return help;
}

ModelFormat otherThan(ModelFormat format) {
  return format == ModelFormat::kText ? ModelFormat::kBinary : ModelFormat::kText;
}

int run(const Options& options) {
  refuseUnknownEnding(options.out, options.save);
  refuseStrangeSymbol(options.out, options.save);
  refuseLossOfModels({options.in}, options.out, options.save);
  ModelFile file = loadModel(options.in, options.load);
  const ModelFormat format = formatToSave(options.out, options.save, otherThan(file.format));
  saveModel(file.model, options.out, format, options.save);
  return kDone;
}

}  // namespace

void addConvertCommand(Tool& tool) {
  const auto options = std::make_shared<Options>();
  CommandLine command = tool.addCommand(help(), [options] { return run(*options); });
  command.add("IN", options->in, "Model of either format; - is standard input").required();
  command.add("OUT", options->out, "File to write; - is standard output").required();
  addSaveOptions(command, options->save);
  command.add("--symbol", options->save.symbol, "Name of the array in a C source")
      .check(notEmpty)
      .type("NAME");
  addLoadOptions(command, options->load);
}

}  // namespace mlnn
