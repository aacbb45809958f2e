// ModelFile — a model with what its file said beside it, and the call that opens one as the command
// `mlnn` does.
//
// A text of version 1 records no activations, and no text those of batch-norm layers. The model's
// own deserialize leaves such layers linear, without a word. Here the hidden ones among them take
// the activation that the caller gives, else the one that the file's property hidden_act_fn names;
// where there is neither, a warning says that they stay linear.
#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <vector>

#include "features/Export.h"
#include "features/Watch.h"
#include "layers/NNLayer.h"
#include "model/MultiLayerNNModel.h"

namespace mlnn {

// The two kinds of files: docs/text-format.md and docs/binary-format.md.
enum class ModelFormat { kText, kBinary };

// The property that names the activation of hidden layers.
inline constexpr char kHiddenActFnProperty[] = "hidden_act_fn";

// What a file holds and is.
struct ModelFile {
  MultiLayerNNModel model;                  // what was read
  std::string name;                         // of the file; "" for one in memory
  ModelFormat format = ModelFormat::kText;  // of the file
  int textVersion = 0;                      // 1 or 2; 0 in an image
  std::size_t length = 0;                   // bytes
};

// What a caller may say about opening.
struct OpenOptions {
  std::string hiddenActFn;  // of hidden layers whose file records none; "" goes by the property
  std::string optionWords = "hiddenActFn";  // what messages call the option above
  std::string fileWords;  // what messages call the file; "" takes its name in quotes
};

// Opens a model of either format.
// Returns: 0 done; 1 refused, after an error line: a file that cannot be read, that is no model, or
// an option that names no activation. On failure: `file` is left as far as reading got. Prints:
// what deserialize prints; then an information line that tells which activation was set, or a
// warning where hidden layers stay linear, or where the given activation changes nothing. What the
// reader says for information goes with the other messages, unlike the command's, which shows it
// with --verbose only: mlnn::printProblems (layers/Messages.h) is the sink for who wants none of
// it. Thread-safety: any number of threads may open models at the same time.
MLNN_EXPORT int openModel(const std::string& fileName, ModelFile& file,
                          const OpenOptions& options = {});

// The same for a file that is in memory, and not needed any more afterwards.
MLNN_EXPORT int openModel(const void* bytes, std::size_t length, ModelFile& file,
                          const OpenOptions& options = {});

// The same for those who want nothing but the model: null where it is refused.
MLNN_EXPORT std::unique_ptr<MultiLayerNNModel> openModel(const std::string& fileName,
                                                         const OpenOptions& options = {});

// --- The steps of opening, for those who do something between them ---

// Reads a model from memory, and nothing more: layers whose activation is not recorded are linear.
// Returns: 0 done; 1 refused, after an error line unless it is an image of less than 8 bytes.
// On failure: `file` is left as far as reading got; its format, version and length are told.
// Leaves file.name alone.
MLNN_EXPORT int readModel(const void* bytes, std::size_t length, ModelFile& file);

// The same, which a watch can stop: it is told of bytes. Where it throws, `file` is left as far as
// reading got, and what was printed does not count.
MLNN_EXPORT int readModel(const void* bytes, std::size_t length, ModelFile& file,
                          const Watch& watch);

// Returns the hidden layers whose activation the file does not record: all layers but the last are
// hidden.
MLNN_EXPORT std::vector<NNLayer*> layersWithoutActivation(const ModelFile& file);

// Sets the activation of these layers as openModel does, and prints what it did.
MLNN_EXPORT void setHiddenActivations(ModelFile& file, const OpenOptions& options = {});

}  // namespace mlnn
