// Loading a model of either format from a file or a stream.
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <limits>
#include <memory>
#include <new>

#include "model/ModelFormat.h"
#include "model/MultiLayerNNModel.h"

namespace {

struct Free {
  void operator()(char* buffer) const { std::free(buffer); }
};
using Buffer = std::unique_ptr<char, Free>;

// REQUIRES: length is not 0.
Buffer allocate(std::size_t length) {
  Buffer buffer(static_cast<char*>(std::malloc(length)));
  if (!buffer) throw std::bad_alloc();
  return buffer;
}

// Returns the length of the stream from its first byte, or -1 when it cannot tell.
std::streamoff lengthOf(std::istream& in) {
  in.seekg(0, std::ios::end);
  return in ? std::streamoff(in.tellg()) : std::streamoff(-1);
}

int loadImage(MultiLayerNNModel& model, std::istream& in) {
  const std::streamoff length = lengthOf(in);
  if (length <= 0) {
    std::cerr << "ERROR: MultiLayerNNModel: could not tell the length of the stream\n";
    return 1;
  }
  if (length > std::numeric_limits<int>::max()) {
    std::cerr << "ERROR: MultiLayerNNModel: model is too large for a binary image\n";
    return 1;
  }
  in.seekg(0);
  const Buffer image = allocate(static_cast<std::size_t>(length));
  in.read(image.get(), static_cast<std::streamsize>(length));
  if (in.gcount() != length) {
    std::cerr << "ERROR: MultiLayerNNModel: stream ended after " << in.gcount() << " of " << length
              << " bytes\n";
    return 1;
  }
  return model.deserializeBinary(image.get(), static_cast<unsigned int>(length)) == length ? 0 : 1;
}

}  // namespace

int MultiLayerNNModel::deserialize(std::istream& in) {
  char start[mlnn::kMagicLength] = {};
  in.read(start, sizeof start);
  if (in.eof()) {
    std::cerr << "ERROR: MultiLayerNNModel: Could not read header\n";
    return 1;
  }
  if (std::memcmp(start, mlnn::kMagic, sizeof start) == 0) return loadImage(*this, in);
  in.seekg(0);
  return deserializeAscii(in);
}

int MultiLayerNNModel::deserialize(const char* fileName) {
  std::ifstream in(fileName, std::ios::in);
  if (!in) {
    std::cerr << "ERROR: MultiLayerNNModel: could not read file: " << fileName << "\n";
    return 1;
  }
  return deserialize(in);
}
