#include "tools/ModelSaving.h"

#include <filesystem>
#include <locale>
#include <ostream>

#include "tools/Failure.h"
#include "tools/ModelFit.h"
#include "tools/OutputFile.h"

namespace mlnn {
namespace {

void writeImage(const MultiLayerNNModel& model, std::ostream& out) {
  const int length = model.binarySerializedLength();
  if (length < 0) throw Failure("the model cannot be written as a binary image");
  std::vector<char> image(static_cast<std::size_t>(length));
  model.serializeBinary(image.data());
  out.write(image.data(), length);
}

}  // namespace

void addSaveOptions(CLI::App& command, SaveOptions& options) {
  command
      .add_option("--to", options.format,
                  "Format to write; without it the name tells (.txt, .mlnn, .bin)")
      ->check(CLI::IsMember({kTextFormatWord, kBinaryFormatWord}))
      ->type_name("ascii|binary");
  command.add_option("--precision", options.precision, "Digits of the numbers in a text")
      ->check(CLI::Range(1, 17))
      ->type_name("N")
      ->capture_default_str();
  command.add_flag("--strict", options.strict, "Refuse to write a file that loses anything");
}

ModelFormat formatToSave(const std::string& name, const SaveOptions& options,
                         ModelFormat otherwise) {
  if (options.format == kTextFormatWord) return ModelFormat::kText;
  if (options.format == kBinaryFormatWord) return ModelFormat::kBinary;
  const std::string extension = std::filesystem::path(name).extension().string();
  if (extension == ".txt") return ModelFormat::kText;
  if (extension == ".mlnn" || extension == ".bin") return ModelFormat::kBinary;
  return otherwise;
}

void writeModel(const MultiLayerNNModel& model, ModelFormat format, int precision,
                std::ostream& out) {
  if (format == ModelFormat::kBinary) return writeImage(model, out);
  out.imbue(std::locale::classic());
  out.precision(precision);
  model.serializeAscii(out);
}

void saveModel(MultiLayerNNModel& model, const std::string& name, ModelFormat format,
               const SaveOptions& options) {
  const Fit fit = fitToFormat(model, format, options.precision);
  for (const std::string& line : fit.lost)
    printWarning(describe(format) + " does not hold " + line);
  if (options.strict && !fit.lost.empty()) {
    throw Failure("nothing written: " + counted(fit.lost.size(), "thing") +
                  " would be lost, and --strict forbids it");
  }
  for (const std::string& line : fit.done) printInfo(line);
  OutputFile file(name);
  writeModel(model, format, options.precision, file.stream());
  file.finish();
}

}  // namespace mlnn
