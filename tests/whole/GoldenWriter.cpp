// Reads every model of a folder and writes it to another one under the same name, in its own
// format; with --all in both formats, and once more with reduced precision, so that arithmetic
// on whole models is there too. scripts/check-all platforms compares the results of platforms.
// Usage: GoldenWriter [--all] FROM TO
#include <filesystem>
#include <fstream>
#include <iostream>
#include <string>

#include "model/MultiLayerNNModel.h"

namespace {

namespace fs = std::filesystem;

bool writeText(const MultiLayerNNModel& model, const fs::path& path) {
  std::ofstream out(path, std::ios::binary);
  out.precision(9);
  model.serializeAscii(out);
  out.flush();
  return out.good();
}

bool writeImage(MultiLayerNNModel& model, const fs::path& path) {
  model.deltasNorm.allocIfNeeded();
  std::string image(static_cast<std::size_t>(model.binarySerializedLength()), '\0');
  model.serializeBinary(image.data());
  std::ofstream out(path, std::ios::binary);
  out << image << std::flush;
  return out.good();
}

bool writeAll(MultiLayerNNModel& model, const std::string& stem) {
  if (!writeText(model, stem + ".txt") || !writeImage(model, stem + ".mlnn")) return false;
  model.convBatchNorm();
  model.retainPrecisionBits(8);
  return writeText(model, stem + "-reduced.txt") && writeImage(model, stem + "-reduced.mlnn");
}

bool rewrite(const fs::path& from, const fs::path& to, bool inAllFormats) {
  MultiLayerNNModel model;
  if (model.deserialize(from.string().c_str()) != 0) return false;
  if (inAllFormats) {
    return writeAll(model, (to / from.stem()).string() + "-" + from.extension().string().substr(1));
  }
  const fs::path target = to / from.filename();
  return from.extension() == ".txt" ? writeText(model, target) : writeImage(model, target);
}

}  // namespace

int main(int argc, char** argv) {
  const bool inAllFormats = argc == 4 && std::string(argv[1]) == "--all";
  if (argc != 3 && !inAllFormats) return 2;
  const fs::path from = argv[argc - 2];
  const fs::path to = argv[argc - 1];
  int files = 0;
  for (const fs::directory_entry& entry : fs::directory_iterator(from)) {
    const std::string ending = entry.path().extension().string();
    if (ending != ".txt" && ending != ".mlnn") continue;
    if (!rewrite(entry.path(), to, inAllFormats)) {
      std::cerr << "GoldenWriter: " << entry.path() << "\n";
      return 1;
    }
    ++files;
  }
  return files > 0 ? 0 : 1;
}
