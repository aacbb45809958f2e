// Reading the image of a model from a stream, and how long one is.
#pragma once

#include <cstddef>
#include <istream>
#include <optional>
#include <vector>

#include "features/Watch.h"
#include "model/MultiLayerNNModel.h"

namespace mlnn {

// Reads an image of `length` bytes, at whose first byte the stream stands, into the model, as
// MultiLayerNNModel::deserializeBinary does with an image in memory; but large arrays are read
// straight to where they stay.
// Returns: the number of bytes consumed; -1 refused, after an error line unless `length` is below
// kMinImageLength. In both cases the stream has been read to the image's end.
// On failure: the model is left as far as reading got; unchanged where the stream ends before the
// image, and on std::bad_alloc while the stream is read.
// REQUIRES: length is at most what an int can hold.
int readImage(MultiLayerNNModel& model, std::istream& in, std::size_t length);

// Returns what MultiLayerNNModel::binarySerializedLength does. `watch` is called with 0 steps.
int imageLength(const MultiLayerNNModel& model, const Watch& watch);

// Returns what MultiLayerNNModel::serializeBinary writes; nothing, after an error line, where the
// model is too large for an image. `watch` is called with 0 steps.
std::optional<std::vector<char>> imageOf(const MultiLayerNNModel& model, const Watch& watch);

}  // namespace mlnn
