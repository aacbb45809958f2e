// fitToFormat — gets a model ready for a file format, and finds out what that cannot hold.
//
// A text holds what the command line of a training left behind: notes, properties, training
// curves, the softmax. It records no activation of batch-norm layers, and takes the feature
// description and the normalisation from note lines. A binary image holds those two itself,
// and every layer with all its arrays, but nothing else.
#pragma once

#include <iosfwd>
#include <optional>
#include <string>
#include <vector>

#include "features/Export.h"
#include "features/Watch.h"
#include "model/ModelFile.h"
#include "model/MultiLayerNNModel.h"

namespace mlnn {

// What became of a model that was made ready for a format. Each entry is one line of text.
struct Fit {
  std::vector<std::string> done;  // what was changed to keep things, as sentences
  std::vector<std::string> lost;  // what the format cannot hold, as in "it does not hold ..."
};

// Makes the model ready for the format and finds out what that cannot hold: notes, a property or
// the normalisation may change. `precision` is the digits of the numbers in a text. `watch` is told
// of values that are looked at. Returns: nothing, with `whyNot` set, when the format has no way to
// write this model so that it can be read. REQUIRES: no layer is missing; precision is 1 to 17.
MLNN_EXPORT std::optional<Fit> fitToFormat(MultiLayerNNModel& model, ModelFormat format,
                                           int precision, std::string& whyNot,
                                           const Watch& watch = {});

// "the text format" or "a binary image", for messages.
MLNN_EXPORT std::string describe(ModelFormat format);

// Writes a model that was made ready as a text, with numbers of so many digits, in the classic
// locale. Errors of the stream are the caller's.
MLNN_EXPORT void writeText(const MultiLayerNNModel& model, int precision, std::ostream& out);

// Returns the image of a model that was made ready; nothing, with `whyNot` set, when it is too
// large for one.
MLNN_EXPORT std::optional<std::vector<char>> imageOf(const MultiLayerNNModel& model,
                                                     std::string& whyNot);

// The same, which a watch can stop: it is called with 0 steps.
MLNN_EXPORT std::optional<std::vector<char>> imageOf(const MultiLayerNNModel& model,
                                                     std::string& whyNot, const Watch& watch);

}  // namespace mlnn
