#include "tests/tools/support/CommandLines.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <filesystem>
#include <map>
#include <sstream>
#include <stdexcept>

#include "tests/support/TestModels.h"
#include "tools/commands/Commands.h"
#include "tools/files/Npy.h"

namespace mlnn::test {
namespace {

namespace fs = std::filesystem;

using Words = std::vector<std::string>;

constexpr char kTraceName[] = "trace";
constexpr char kDigestName[] = "model.digest";
constexpr char kLabelsName[] = "labels.csv";
constexpr char kListName[] = "recordings";
constexpr char kOnnxName[] = "model.onnx";

// What stands in the place of an argument.
const std::map<std::string, Words> kArguments = {
    {"MODEL", {kModelName}},
    {"IN", {kModelName}},
    {"A", {kModelName}},
    {"B", {kModelName}},
    {"FILES", {kModelName, kModelName, kResultName}},
    {"FRAMES", {kFramesName}},
    {"DIR1", {kTraceName}},
    {"DIR2", {kTraceName}},
    {"ONNX", {kOnnxName}},
    {"OUT", {kResultName}},
    {"SIZES", {"3,2"}},
};

// The values that are tried of an option which takes one.
const std::map<std::string, Words> kValues = {
    {"act-fn", {"tanh"}},
    {"act-fn-layer", {"1=tanh"}},
    {"add-layer", {"2"}},
    {"against", {kDigestName}},
    {"bins", {"10"}},
    {"bits", {"4", "8"}},
    {"correct", {kFramesName}},
    {"delete-layers", {"1"}},
    {"features", {"mel_deltas:bands=1,left=1,right=1,deltas=0,line_kernels=0,line_kernel_width=0"}},
    {"files-from", {kListName}},
    {"frames", {kFramesName}},
    {"init-scale", {"0.5"}},
    {"jobs", {"1", "2"}},
    {"keep", {"0.5"}},
    {"labels", {kLabelsName}},
    {"leave", {"0.5"}},
    {"note", {"a note"}},
    {"out", {kResultName}},
    {"precision", {"17"}},
    {"prove", {kFramesName}},
    {"python", {"python3"}},
    {"rate", {"50"}},
    {"scale", {"0.5"}},
    {"scales", {"largest", "squares"}},
    {"seconds", {"0.001"}},
    {"seed", {"7"}},
    {"set", {"key=value"}},
    {"softmax", {"off"}},
    {"sweep", {"2..3"}},
    {"symbol", {"weights"}},
    {"to", {"ascii", "binary", "c-array"}},
    {"tolerance", {"0.5"}},
    {"trace", {"traced"}},
    {"unset", {"labels"}},
    {"weights", {"1,2"}},
    {"width", {"40"}},
    {"words", {"first", "all"}},
};

// The same where a command means something else by an option of that name.
const std::map<std::string, Words> kValuesOfCommand = {{"report --against", {kModelName}}};

// What a command is always given, unless it is what is tried.
const std::map<std::string, Words> kAlways = {{"budget", {"--seconds", "0.001"}},
                                              {"edit", {"--note", "a note"}},
                                              {"reduce", {"--bits", "4"}}};

// What an option makes no sense without, though the parser does not know.
struct Company {
  std::string command;
  std::string option;
  Words more;
};
const std::vector<Company> kTogether = {{"convert", "--symbol", {"--to", "c-array"}},
                                        {"quantize", "--sweep", {"--prove", kFramesName}},
                                        {"reduce", "--sweep", {"--frames", kFramesName}},
                                        {"run", "--resume", {"--out", kResultName}}};

const Words& valuesOf(const std::map<std::string, Words>& known, const std::string& name,
                      const std::string& command) {
  const auto found = known.find(name);
  if (found != known.end()) return found->second;
  throw std::logic_error("it is not known what to give 'mlnn " + command + "' as " + name);
}

const Words& valuesOfOption(const std::string& name, const std::string& command) {
  const auto own = kValuesOfCommand.find(command + " --" + name);
  return own != kValuesOfCommand.end() ? own->second : valuesOf(kValues, name, command);
}

bool takesValue(const CLI::Option& option) { return option.get_items_expected_max() > 0; }

std::string longName(const CLI::Option& option) {
  return option.get_lnames().empty() ? "" : option.get_lnames().front();
}

void append(Words& words, const Words& more) {
  words.insert(words.end(), more.begin(), more.end());
}

// The option with one of its values, and what it needs beside.
Words withNeeds(const CLI::Option& option, std::size_t value, const std::string& command) {
  const std::string name = longName(option);
  Words words{"--" + name};
  if (takesValue(option)) words.push_back(valuesOfOption(name, command)[value]);
  for (CLI::Option* needed : const_cast<CLI::Option&>(option).get_needs()) {
    append(words, withNeeds(*needed, 0, command));
  }
  return words;
}

bool contains(const Words& words, const std::string& word) {
  return std::find(words.begin(), words.end(), word) != words.end();
}

bool isSweep(const Words& options) { return contains(options, "--sweep"); }

// Arguments come first: an option may take all that follows.
TriedLine lineOf(const CLI::App& command, const Words& options) {
  const std::string name = command.get_name();
  TriedLine line{name, {name}};
  for (const CLI::Option* argument : command.get_options()) {
    if (!argument->nonpositional() && argument->get_positional()) {
      const std::string what = argument->get_name();
      if (what == "OUT" && isSweep(options)) continue;  // it writes no file
      append(line.arguments, valuesOf(kArguments, what, name));
    }
  }
  const auto always = kAlways.find(name);
  const bool asks = always != kAlways.end() && !contains(options, always->second.front());
  if (asks && !isSweep(options)) append(line.arguments, always->second);
  append(line.arguments, options);
  for (const auto& [with, option, more] : kTogether) {
    if (name == with && contains(options, option)) append(line.arguments, more);
  }
  for (const std::string& word : options) line.name += " " + word;
  return line;
}

// The list, which must outlive what is taken from it.
const Tool& theTool() {
  static Tool* const tool = [] {
    auto* const made = new Tool;
    addCommands(*made);
    return made;
  }();
  return *tool;
}

// A model whose single frames are its input vectors.
constexpr char kModel[] =
    "MultiLayerNNModel_v2\nsoftmax 1\n"
    "# nn_tune feat_desc mel_deltas:bands=3,left=0,right=0,deltas=0,line_kernels=0,"
    "line_kernel_width=0\n"
    "# NVP hidden_act_fn sigmoid\n# NVP labels no yes\n"
    "loss 2\n2\t1\naccuracy 2\n0.5\t0.75\nnum_layers 2\n"
    "batch_norm_layer 1 size 2 3\n1\t2\t3\n4\t5\t6\ngamma_beta\n1\t2\t3\t4\n5\t6\t7\t8\n"
    "layer 2 size 2 3\nact_fn linear\n1\t2\t3\n-1\t0.5\t2\n";

std::string someFrames() {
  std::ostringstream out;
  writeNpy(someValues(3, 4, 1), out);
  return out.str();
}

}  // namespace

std::vector<std::string> commandNames() {
  std::vector<std::string> names;
  for (const CLI::App* command :
       theTool().app().get_subcommands([](const CLI::App*) { return true; })) {
    names.push_back(command->get_name());
  }
  return names;
}

std::vector<TriedLine> commandLines(const std::string& name) {
  const CLI::App& command = *theTool().app().get_subcommand(name);
  std::vector<TriedLine> lines{lineOf(command, {})};
  for (const CLI::Option* option : command.get_options()) {
    if (option->get_positional() || option == command.get_help_ptr()) continue;
    const std::size_t values =
        takesValue(*option) ? valuesOfOption(longName(*option), name).size() : 1;
    for (std::size_t i = 0; i < values; ++i) {
      lines.push_back(lineOf(command, withNeeds(*option, i, name)));
    }
  }
  return lines;
}

void makeInputs(const TempFolder& folder) {
  folder.write(kModelName, kModel);
  folder.write(kFramesName, someFrames());
  folder.write(kDigestName, "");
  folder.write(kLabelsName, std::string("file,label\n") + kFramesName + ",0\n");
  folder.write(kListName, std::string(kFramesName) + "\n");
  folder.write(kOnnxName, "");
  fs::create_directory(folder.path(kTraceName));
  folder.write(std::string(kTraceName) + "/outputs.npy", someFrames());
}

}  // namespace mlnn::test
