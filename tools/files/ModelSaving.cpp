#include "tools/files/ModelSaving.h"

#include <filesystem>
#include <optional>
#include <ostream>
#include <utility>

#include "analysis/WeightForms.h"
#include "model/FormatFit.h"
#include "os/Names.h"
#include "text/Escape.h"
#include "tools/Failure.h"
#include "tools/files/CArray.h"
#include "tools/files/InputFile.h"
#include "tools/files/OutputFile.h"
#include "tools/files/OwnInputs.h"

namespace mlnn {
namespace {

std::vector<char> imageBytes(const MultiLayerNNModel& model) {
  std::string whyNot;
  std::optional<std::vector<char>> image = imageOf(model, whyNot);
  return orFail(std::move(image), whyNot);
}

// Whether the file is to be a C source that holds the image.
bool isCArray(const std::string& name, const SaveOptions& options) {
  if (!options.format.empty()) return options.format == kCArrayFormatWord;
  return pathOf(name).extension() == ".c";
}

}  // namespace

void addSaveOptions(CommandLine& command, SaveOptions& options) {
  command
      .add("--to", options.format,
           "Format to write; without it the name tells (.txt, .mlnn, .bin, .c)")
      .oneOf({kTextFormatWord, kBinaryFormatWord, kCArrayFormatWord})
      .type("ascii|binary|c-array");
  command.add("--precision", options.precision, "Digits of the numbers in a text")
      .inRange(1, 17)
      .type("N")
      .showDefault();
  command.addFlag("--strict", options.strict, "Refuse to write a file that loses anything");
}

ModelFormat formatToSave(const std::string& name, const SaveOptions& options,
                         ModelFormat otherwise) {
  if (options.format == kTextFormatWord) return ModelFormat::kText;
  if (options.format == kBinaryFormatWord || isCArray(name, options)) return ModelFormat::kBinary;
  const std::string extension = nameOf(pathOf(name).extension());
  if (extension == ".txt") return ModelFormat::kText;
  if (extension == ".mlnn" || extension == ".bin") return ModelFormat::kBinary;
  return otherwise;
}

void refuseUnknownEnding(const std::string& name, const SaveOptions& options) {
  if (name == kStandardStream || !options.format.empty()) return;
  const std::string ending = nameOf(pathOf(name).extension());
  for (const char* known : {"", ".txt", ".mlnn", ".bin", ".c"}) {
    if (ending == known) return;
  }
  throw UsageError("no format is known by the ending " + inQuotes(ending) + " of " +
                   inQuotes(name) + "; name it: --to ascii, --to binary or --to c-array");
}

void refuseStrangeSymbol(const std::string& name, const SaveOptions& options) {
  if (options.symbol.empty()) return;
  if (!isCArray(name, options)) {
    throw UsageError("--symbol names the array of a C source, and OUT is none");
  }
  if (isCName(options.symbol)) return;
  throw UsageError("--symbol: " + inQuotes(options.symbol) + " is no name that C and C++ take");
}

void refuseLossOfModels(const std::vector<std::string>& models, const std::string& name,
                        const SaveOptions& options) {
  if (!isCArray(name, options)) return;
  OwnInputs inputs;
  for (const std::string& model : models) inputs.add(model, "model");
  inputs.refuse(name);
}

void writeModel(const MultiLayerNNModel& model, ModelFormat format, int precision,
                std::ostream& out) {
  if (format == ModelFormat::kText) return writeText(model, precision, out);
  const std::vector<char> image = imageBytes(model);
  out.write(image.data(), static_cast<std::streamsize>(image.size()));
}

void saveModel(MultiLayerNNModel& model, const std::string& name, ModelFormat format,
               const SaveOptions& options) {
  std::string whyNot;
  std::optional<Fit> fitted = fitToFormat(model, format, options.precision, whyNot);
  const Fit fit = orFail(std::move(fitted), whyNot);
  for (const std::string& line : fit.lost)
    printWarning(describe(format) + " does not hold " + line);
  if (options.strict && !fit.lost.empty()) {
    throw Failure("nothing written: " + counted(fit.lost.size(), "thing") +
                  " would be lost, and --strict forbids it");
  }
  for (const std::string& line : fit.done) printInfo(line);
  OutputFile file(name);
  if (isCArray(name, options)) {
    writeCArray(imageBytes(model), options.symbol.empty() ? arrayName(name) : options.symbol,
                quantizedText(model), file.stream());
  } else {
    writeModel(model, format, options.precision, file.stream());
  }
  file.finish();
}

}  // namespace mlnn
