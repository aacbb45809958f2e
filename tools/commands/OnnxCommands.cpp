#include "tools/commands/OnnxCommands.h"

#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "os/Program.h"
#include "text/Escape.h"
#include "tools/Failure.h"

namespace mlnn {
namespace {

constexpr char kNeedsPython[] =
    "The work is done by the Python package mlnn, which needs Debian's python3-onnx. The\n"
    "interpreter is python3, or what --python or MLNN_PYTHON names.";

// Runs the package, or says how to name an interpreter that has it.
constexpr char kRunPackage[] = R"(import sys
try:
    from mlnn.__main__ import main
except ImportError as error:
    sys.exit(f"ERROR: {sys.executable!r} cannot import the Python package mlnn ({error}); "
             "--python or MLNN_PYTHON names an interpreter that can")
sys.exit(main())
)";

struct Options {
  std::string in;
  std::string out;
  std::string python = "python3";
  std::string actFn;  // "" when not given
  bool quantized = false;
  std::vector<std::string> frames;
  bool normalisation = false;
  bool context = false;
};

// Becomes the interpreter that runs the command of the Python package. Returns never.
// Throws: Failure when the interpreter cannot be started.
int runPython(const std::string& python, const std::vector<std::string>& command) {
  std::vector<std::string> line = {python, "-c", kRunPackage};
  line.insert(line.end(), command.begin(), command.end());
  setDefault("PYTHONSAFEPATH", "1");  // a folder `mlnn` where the user stands is not the package
  const int error = becomeProgram(line);
  throw Failure("cannot run " + escaped(python) + ": " + std::strerror(error) +
                "; ONNX is read and written by the Python package mlnn");
}

void addPythonOption(CommandLine& command, Options& options) {
  command.add("--python", options.python, "Python interpreter that has the package mlnn")
      .fromEnvironment("MLNN_PYTHON")
      .type("PROGRAM")
      .showDefault();
}

CommandHelp exportHelp() {
  CommandHelp help;
  help.name = "export-onnx";
  help.summary = "Writes a model as ONNX";
  help.details =
      "The graph maps input vectors (normalised frames with their context) to outputs. Notes,\n"
      "properties, curves, the normalisation and the feature description travel as metadata, so\n"
      "that import-onnx gives the model back. With --quantized, weights that mlnn quantize made "
      "become\n"
      "whole numbers of 8 bits and DequantizeLinear with a scale for each row; with --frames, "
      ".npy\n"
      "files, the inputs of these layers go through QuantizeLinear and DequantizeLinear with the\n"
      "scale by which the recordings fill 8 bits. PyTorch computes what these graphs say; OpenCV "
      "4.6\n"
      "refuses them.\n"
      "\n" +
      std::string(kNeedsPython);
  help.examples =
      "mlnn export-onnx model.txt model.onnx\n"
      "mlnn export-onnx small.mlnn small.onnx --quantized --frames words/*.npy";
  return help;
}

CommandHelp importHelp() {
  CommandHelp help;
  help.name = "import-onnx";
  help.summary = "Writes an ONNX file as a model";
  help.details =
      "Takes a chain of Gemm, MatMul, Add, BatchNormalization, Sigmoid, Tanh, Relu, LeakyRelu,\n"
      "Elu, Softplus, Mul with a Sigmoid, and a Softmax at the end. Whatever else there is, is\n"
      "refused by its name.\n"
      "\n" +
      std::string(kNeedsPython);
  help.examples = "mlnn import-onnx model.onnx model.mlnn";
  return help;
}

int runExport(const Options& options) {
  std::vector<std::string> command = {"export-onnx"};
  if (!options.actFn.empty()) command.push_back("--act-fn=" + options.actFn);
  if (options.quantized) command.push_back("--quantized");
  for (const std::string& name : options.frames) command.push_back("--frames=" + name);
  if (options.normalisation) command.push_back("--normalisation");
  if (options.context) command.push_back("--context");
  command.insert(command.end(), {"--", options.in, options.out});
  return runPython(options.python, command);
}

int runImport(const Options& options) {
  return runPython(options.python, {"import-onnx", "--", options.in, options.out});
}

}  // namespace

void addExportOnnxCommand(Tool& tool) {
  const auto options = std::make_shared<Options>();
  CommandLine command = tool.addCommand(exportHelp(), [options] { return runExport(*options); });
  command.add("MODEL", options->in, "Model of either format").required();
  command.add("OUT", options->out, "ONNX file to write").required();
  command.add("--act-fn", options->actFn, "Activation of the hidden layers whose file records none")
      .check(notEmpty)
      .type("NAME");
  const Option quantized =
      command.addFlag("--quantized", options->quantized, "Write quantised weights in 8 bits");
  command.add("--frames", options->frames, "Recordings to find the scales of inputs with")
      .needs(quantized)
      .check(notEmpty)
      .type("FRAMES");
  command.addFlag("--normalisation", options->normalisation,
                  "Begin the graph with the normalisation of frames");
  command.addFlag("--context", options->context,
                  "Begin the graph with the context window: it takes a recording's frames");
  addPythonOption(command, *options);
}

void addImportOnnxCommand(Tool& tool) {
  const auto options = std::make_shared<Options>();
  CommandLine command = tool.addCommand(importHelp(), [options] { return runImport(*options); });
  command.add("ONNX", options->in, "ONNX file to read").required();
  command.add("OUT", options->out, "Model to write: NAME.txt, NAME.mlnn or NAME.bin").required();
  addPythonOption(command, *options);
}

}  // namespace mlnn
