// What is done to a model so that a format holds more of it.
#pragma once

#include <string>
#include <vector>

#include "model/MultiLayerNNModel.h"

namespace mlnn {

// Makes the notes and properties say what a text has no other place for: the activation of hidden
// batch-norm layers, the feature description, the normalisation. Adds a sentence for each to
// `done`.
void prepareForText(MultiLayerNNModel& model, std::vector<std::string>& done);

// Adds the normalisation that an image needs, where there is none.
void prepareForImage(MultiLayerNNModel& model, std::vector<std::string>& done);

}  // namespace mlnn
