// Saving a model in either format, so that nothing is lost in silence.
#pragma once

#include <iosfwd>
#include <string>
#include <vector>

#include "text/Numbers.h"
#include "tools/files/ModelLoading.h"
#include "tools/shell/CommandLine.h"

namespace mlnn {

// The word for an image as a C source.
inline constexpr char kCArrayFormatWord[] = "c-array";

// How a command wants its model written.
struct SaveOptions {
  std::string format;  // kTextFormatWord, kBinaryFormatWord, kCArrayFormatWord, or "" for by name
  int precision = kExactDigits;  // digits of the numbers in a text
  bool strict = false;           // refuse rather than lose anything
  std::string symbol;            // name of the array in a C source; "" for one by the file's name
};

// Declares --to, --precision and --strict on a command.
void addSaveOptions(CommandLine& command, SaveOptions& options);

// Returns the format in which a file of that name is written: what the options say, else
// what the name says (.txt is text, .mlnn and .bin are images, .c is a C source that holds an
// image), else `otherwise`. A C source counts as an image.
ModelFormat formatToSave(const std::string& name, const SaveOptions& options,
                         ModelFormat otherwise);

// Makes sure that the format of a file is known, where only its name can tell: one with an ending
// has to have one of those above. Throws: UsageError.
void refuseUnknownEnding(const std::string& name, const SaveOptions& options);

// Makes sure that the name of the array, where one is given, is one that C takes, and that there is
// an array.
// Throws: UsageError.
void refuseStrangeSymbol(const std::string& name, const SaveOptions& options);

// Makes sure that a C source, which no command reads back, replaces none of the models that it is
// made from. A model may take the place of the one that it is made from.
// Throws: UsageError.
void refuseLossOfModels(const std::vector<std::string>& models, const std::string& name,
                        const SaveOptions& options);

// Writes the model to a file that appears when it is complete, or to the standard output
// ("-"). Before that, prints what was done to the model to keep things that the format has
// no place for, and what it cannot hold.
// The model is made ready for the format: notes, a property or the normalisation may change.
// Throws: Failure; also where the options are strict and something would be lost.
void saveModel(MultiLayerNNModel& model, const std::string& name, ModelFormat format,
               const SaveOptions& options);

// Writes a model that was made ready.
// Throws: Failure when it is too large for an image. Errors of the stream are the caller's.
void writeModel(const MultiLayerNNModel& model, ModelFormat format, int precision,
                std::ostream& out);

}  // namespace mlnn
