// Loading a model of either format from a file or a stream.
#include <cstring>
#include <fstream>
#include <limits>
#include <locale>
#include <memory>

#include "layers/Report.h"
#include "model/ModelFormat.h"
#include "model/ModelImage.h"
#include "model/MultiLayerNNModel.h"

namespace {

// Large enough for the calls of the system not to count, small enough to stay in a cache.
constexpr std::streamsize kFileBuffer = 64 << 10;

// Returns the length of the stream from its first byte, or -1 when it cannot tell.
std::streamoff lengthOf(std::istream& in) {
  in.seekg(0, std::ios::end);
  return in ? std::streamoff(in.tellg()) : std::streamoff(-1);
}

int loadImage(MultiLayerNNModel& model, std::istream& in) {
  const std::streamoff length = lengthOf(in);
  if (length <= 0) {
    mlnn::report({"ERROR: MultiLayerNNModel: could not tell the length of the stream"});
    return 1;
  }
  if (length > std::numeric_limits<int>::max()) {
    mlnn::report({"ERROR: MultiLayerNNModel: model is too large for a binary image"});
    return 1;
  }
  in.seekg(0);
  return mlnn::readImage(model, in, static_cast<std::size_t>(length)) == length ? 0 : 1;
}

}  // namespace

int MultiLayerNNModel::deserialize(std::istream& in) {
  char start[mlnn::kMagicLength] = {};
  in.read(start, sizeof start);
  if (in.eof()) {
    mlnn::report({"ERROR: MultiLayerNNModel: Could not read header"});
    return 1;
  }
  if (std::memcmp(start, mlnn::kMagic, sizeof start) == 0) return loadImage(*this, in);
  in.seekg(0);
  return deserializeAscii(in);
}

int MultiLayerNNModel::deserialize(const char* fileName) {
  const std::unique_ptr<char[]> buffer(new char[kFileBuffer]);
  std::ifstream in;
  in.rdbuf()->pubsetbuf(buffer.get(), kFileBuffer);
  in.open(fileName, std::ios::in);
  if (!in) {
    mlnn::report({"ERROR: MultiLayerNNModel: could not read file: ", fileName});
    return 1;
  }
  in.imbue(std::locale::classic());  // the program's global locale says nothing about files
  return deserialize(in);
}
