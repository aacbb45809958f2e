// What holds for every model that a reader accepted, checked by fuzz targets.
#pragma once

#include <string>
#include <string_view>

#include "fuzz/Support.h"
#include "model/MultiLayerNNModel.h"

namespace mlnn::fuzz {

// The text of a model with nine digits, and its image.
std::string textOf(const MultiLayerNNModel& model);
std::string imageOf(const MultiLayerNNModel& model);

// The limits that are promised for reading a text and an image of this length.
Limits textLimits(std::size_t length);
Limits imageLimits(std::size_t length);

// What the text reader did with a text.
struct TextReading {
  int result = -1;
  std::string messages;
  std::ios::iostate state = std::ios::goodbit;
  std::string rest;  // what was left in the stream
  MultiLayerNNModel model;
};

// Reads a text by the library, within limits of memory and time, and by the literal reader.
// Both must do the same.
void readText(const std::string& text, TextReading& reading);

// Requires that a model which was read from `text` writes and reads back the same.
void requireTextRoundTrip(const MultiLayerNNModel& model, std::string_view text);

// Reads an image within limits of memory and time; returns what deserializeBinary does.
int readImage(std::string_view image, MultiLayerNNModel& model);

// Whether the writer may put a record in the place of one that was read: that is older than row
// scales, with which the weights take fewer bytes.
bool mayReplace(const std::string& read, const std::string& written);

// Requires that a model which was read from all of `image` writes the image again, but for records
// that mayReplace() says.
void requireImageRoundTrip(const MultiLayerNNModel& model, std::string_view image);

// Requires that a refusal came with a reason.
void requireReason(std::string_view messages);

}  // namespace mlnn::fuzz
