// fitToFormat — gets a model ready for a file format, and finds out what that cannot hold.
//
// A text holds what the command line of a training left behind: notes, properties, training
// curves, the softmax. It records no activation of batch-norm layers, and takes the feature
// description and the normalisation from note lines. A binary image holds those two itself,
// and every layer with all its arrays, but nothing else.
#pragma once

#include <string>
#include <vector>

#include "model/MultiLayerNNModel.h"
#include "tools/files/ModelLoading.h"

namespace mlnn {

// What became of a model that was made ready for a format. Each entry is one line of text.
struct Fit {
  std::vector<std::string> done;  // what was changed to keep things, as sentences
  std::vector<std::string> lost;  // what the format cannot hold, as in "it does not hold ..."
};

// Makes the model ready for the format and finds out what that cannot hold.
// Throws: Failure when the format has no way to write this model so that it can be read.
Fit fitToFormat(MultiLayerNNModel& model, ModelFormat format, int precision);

// "the text format" or "a binary image", for messages.
std::string describe(ModelFormat format);

}  // namespace mlnn
