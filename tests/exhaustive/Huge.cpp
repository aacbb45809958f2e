// Models beyond the lengths that fit 31 and 32 bits. Writes a text model to a file and loads it.
// Usage: Huge text BYTES FOLDER      a text of about so many bytes, of many layers
//        Huge line BYTES FOLDER      a text with one line of so many bytes: weights
//        Huge note BYTES FOLDER      a text with one line of so many bytes: a note
//        Huge image BYTES FOLDER     an image whose length is about that
//        Huge cut-image BYTES FOLDER a file of so many bytes that starts as an image does
// Prints the file's length, the result of loading, processor time, and the most memory that the
// process had. Exit status 1 when the result is not what it should be: images above 2 GiB are
// refused, all else loads.
#include <sys/resource.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <limits>
#include <string>
#include <vector>

#include "model/MultiLayerNNModel.h"

namespace {

constexpr uint64_t kMaxImage = std::numeric_limits<int32_t>::max();

void writeTo(std::ofstream& out, const std::string& piece, uint64_t times) {
  for (uint64_t i = 0; i < times; ++i) {
    out.write(piece.data(), static_cast<std::streamsize>(piece.size()));
  }
}

constexpr char kHead[] = "MultiLayerNNModel_v2\nsoftmax 1\n";

std::string layerHead(uint64_t layer, uint64_t rows, uint64_t columns) {
  return "layer " + std::to_string(layer) + " size " + std::to_string(rows) + " " +
         std::to_string(columns) + "\nact_fn relu\n";
}

// Layers of 2000 x 2001 values, ten bytes each. The widths fit.
void writeText(std::ofstream& out, uint64_t bytes) {
  constexpr uint64_t kWidth = 2000;
  const std::string value = " 0.1234567";
  const uint64_t layers = bytes / (kWidth * (kWidth + 1) * value.size()) + 1;
  out << kHead << "num_layers " << layers << "\n";
  std::string row;
  for (uint64_t i = 0; i <= kWidth; ++i) row += value;
  row += "\n";
  for (uint64_t layer = 1; layer <= layers; ++layer) {
    out << layerHead(layer, kWidth, kWidth + 1);
    writeTo(out, row, kWidth);
  }
}

void writeLine(std::ofstream& out, uint64_t bytes) {
  const std::string value = "0.12345678 ";
  const uint64_t values = bytes / value.size();
  out << kHead << "num_layers 1\n" << layerHead(1, 1, values);
  writeTo(out, value, values);
  out << "\n";
}

void writeNote(std::ofstream& out, uint64_t bytes) {
  out << kHead << "# ";
  writeTo(out, std::string(1 << 20, 'x'), bytes >> 20);
  out << "\nnum_layers 0\n";
}

// A model of one layer of whole floats: as long as its image can be.
void writeImage(std::ofstream& out, uint64_t bytes) {
  constexpr int kOutputs = 1024;
  const auto inputs = static_cast<int>(bytes / sizeof(float) / kOutputs);
  MultiLayerNNModel model;
  model.deltasNorm.allocIfNeeded();
  model.layers.push_back(new NNLayer(inputs, kOutputs, false));
  float* const weights = model.layers[0]->weights.data();
  for (Eigen::Index i = 0; i < model.layers[0]->weights.size(); ++i) {
    weights[i] = static_cast<float>(i % 1000003) * 1.000001f;
  }
  const int length = model.binarySerializedLength();
  if (length < 0) return;  // no image can be so long, and the message says so
  std::vector<char> image(static_cast<std::size_t>(length));
  model.serializeBinary(image.data());
  out.write(image.data(), length);
}

void writeCutImage(std::ofstream& out, uint64_t bytes) {
  out << "MLNN";
  out.seekp(static_cast<std::streamoff>(bytes) - 1);  // a file with a hole
  out.put('\0');
}

void print(const std::string& kind, uint64_t length, int result) {
  rusage used{};
  getrusage(RUSAGE_SELF, &used);
  const double seconds = double(used.ru_utime.tv_sec + used.ru_stime.tv_sec) +
                         1e-6 * double(used.ru_utime.tv_usec + used.ru_stime.tv_usec);
  std::printf("%s of %llu bytes: %s, %.0f s of processor time, %.0f MiB at most\n", kind.c_str(),
              static_cast<unsigned long long>(length), result == 0 ? "loads" : "is refused",
              seconds, double(used.ru_maxrss) / 1024);
}

// Loads in a process that has written nothing, so that its memory is that of loading.
int load(const std::string& kind, const std::string& path) {
  const uint64_t length = std::filesystem::file_size(path);
  MultiLayerNNModel model;
  const int result = model.deserialize(path.c_str());
  print(kind, length, result);
  const bool mayLoad = kind.find("image") == std::string::npos || length <= kMaxImage;
  return (result == 0) == (mayLoad && kind != "cut-image") ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 4) return 2;
  const std::string kind = argv[1];
  const std::string path = (std::filesystem::path(argv[3]) / "model").string();
  if (argc > 4) return load(kind, path);
  {
    std::ofstream out(path, std::ios::binary);
    const uint64_t bytes = std::strtoull(argv[2], nullptr, 10);
    if (kind == "text") writeText(out, bytes);
    if (kind == "line") writeLine(out, bytes);
    if (kind == "note") writeNote(out, bytes);
    if (kind == "image") writeImage(out, bytes);
    if (kind == "cut-image") writeCutImage(out, bytes);
    if (!out.flush()) return 2;
  }
  const std::string again = std::string("'") + argv[0] + "' " + kind + " 0 '" + argv[3] + "' load";
  return std::system(again.c_str()) == 0 ? 0 : 1;
}
