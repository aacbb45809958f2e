// loadModel — how every command reads a model.
#pragma once

#include <string>
#include <vector>

#include "layers/Messages.h"
#include "model/ModelFile.h"
#include "tools/shell/CommandLine.h"

namespace mlnn {

// The words for the formats in options and reports.
inline constexpr char kTextFormatWord[] = "ascii";
inline constexpr char kBinaryFormatWord[] = "binary";

// How a command wants its models read.
struct LoadOptions {
  std::string hiddenActFn;  // for layers whose file records none; "" when not given
  bool verbose = false;     // show the reader's information lines too
  bool keepLinear = false;  // the command sets activations itself: leave those that the file
                            // does not record, and say nothing of them
};

// Declares --act-fn and --verbose on a command.
void addLoadOptions(CommandLine& command, LoadOptions& options);

// Reads a model of either format from a file, or from the standard input ("-").
//
// Activations that the file does not record are set on all layers but the last: to the one
// that the options give, else to the one that the property hidden_act_fn names. What was
// done, or that there is none, is said on the standard error stream. The reader's own error
// lines are shown in any case, with control characters escaped.
// Throws: Failure, after the reader's own messages.
ModelFile loadModel(const std::string& name, const LoadOptions& options = {});

// Returns the lines of what a reader said, with control characters escaped; those of information
// only where `verbose` asks for them.
std::vector<std::string> linesOf(const std::vector<Message>& messages, bool verbose);

// Shows these lines.
void showMessages(const std::vector<Message>& messages, bool verbose);

// Reads a model from memory. What the reader says goes into `messages` instead of being shown.
// Returns: whether it could be read. `file.name` is left alone.
bool parseModel(const std::string& bytes, ModelFile& file, std::vector<Message>& messages);

// Sets the activations that the file does not record, as loadModel does: to `given`, or where
// that is "" to what the property says. Prints what it did.
void setHiddenActivations(ModelFile& file, const std::string& given);

}  // namespace mlnn
