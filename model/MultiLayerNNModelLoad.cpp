// Loading a model of either format from a file or a stream.
#include <cstring>
#include <istream>
#include <limits>

#include "layers/Report.h"
#include "model/FileStream.h"
#include "model/ModelFormat.h"
#include "model/ModelImage.h"
#include "model/MultiLayerNNModel.h"

namespace {

int loadImage(MultiLayerNNModel& model, std::istream& in) {
  const std::streamoff length = mlnn::lengthOf(in);
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
  if (mlnn::isImage({start, sizeof start})) return loadImage(*this, in);
  in.seekg(0);
  return deserializeAscii(in);
}

int MultiLayerNNModel::deserialize(const char* fileName) {
  mlnn::FileStream file;
  return file.open(fileName) ? deserialize(file.stream()) : 1;
}
