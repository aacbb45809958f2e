// The writer and reader of the binary image (docs/binary-format.md).
#include <algorithm>
#include <cstring>
#include <iostream>
#include <limits>

#include "layers/ByteIo.h"
#include "layers/NNLayerRecord.h"
#include "model/LayerStack.h"
#include "model/ModelFormat.h"
#include "model/MultiLayerNNModel.h"

namespace {

constexpr int64_t kMaxImageLength = std::numeric_limits<int>::max();

// Returns the length that an image of the model has or would have.
int64_t imageLength(const MultiLayerNNModel& model) {
  int64_t length = int64_t{mlnn::kHeadLengthWithoutNorm};
  length += 4 * (int64_t{model.deltasNorm.minvals.size()} + model.deltasNorm.normvals.size());
  for (const NNLayer* layer : model.layers) {
    const int record = mlnn::layerOrEmpty(layer).binarySerializedLength();
    if (record < 0) return kMaxImageLength + 1;
    length += record;
  }
  return length;
}

void writeArray(mlnn::ByteWriter& writer, const Eigen::VectorXf& values) {
  writer.int32(static_cast<int32_t>(values.size()));
  writer.floats(values.data(), static_cast<std::size_t>(values.size()));
}

// Reads an image from its fixed offsets; every step first makes sure that its field is there.
class ImageReader {
 public:
  ImageReader(const char* image, std::size_t length, MultiLayerNNModel& model)
      : image_(image), length_(length), model_(model) {}

  // Returns the number of bytes consumed, or -1.
  int read() {
    if (length_ < mlnn::kMinImageLength) return -1;
    if (std::memcmp(image_, mlnn::kMagic, mlnn::kMagicLength) != 0) {
      std::cerr << "ERROR: MultiLayerNNModel::deserializeBinary: could not find header 'MLNN'\n";
      return -1;
    }
    if (!readFeatureDescription() || !readNormalisation() || !readLayerCount()) return -1;
    if (!readLayers() || !checksumMatches()) return -1;
    return static_cast<int>(position_);
  }

 private:
  bool readFeatureDescription();
  bool readNormalisation();
  bool readLayerCount();
  bool readLayers();
  bool checksumMatches() const;

  bool has(std::size_t offset, std::size_t count) const;
  int32_t int32At(std::size_t offset) const;
  void floatsAt(std::size_t offset, Eigen::VectorXf& values) const;

  const char* image_;
  std::size_t length_;
  MultiLayerNNModel& model_;
  std::size_t position_ = mlnn::kHeadLength;
};

bool ImageReader::has(std::size_t offset, std::size_t count) const {
  if (offset + count <= length_) return true;
  std::cerr << "ERROR: MultiLayerNNModel::deserializeBinary: image of " << length_
            << " bytes is shorter than its head (" << mlnn::kHeadLength << ")\n";
  return false;
}

int32_t ImageReader::int32At(std::size_t offset) const {
  return mlnn::ByteReader(image_ + offset, sizeof(int32_t)).int32();
}

void ImageReader::floatsAt(std::size_t offset, Eigen::VectorXf& values) const {
  std::memcpy(values.data(), image_ + offset, mlnn::kDeltasNormBytes);
}

bool ImageReader::readFeatureDescription() {
  if (!has(mlnn::kFeatureDescLengthOffset, sizeof(int32_t))) return false;
  const int32_t length = int32At(mlnn::kFeatureDescLengthOffset);
  if (length != mlnn::kFeatureDescLength) {
    std::cerr << "ERROR: deserializeBinary: sizeof feature description in model (" << length
              << ") does not match current size (" << mlnn::kFeatureDescLength << ")\n";
    return false;
  }
  if (!has(mlnn::kFeatureDescOffset, mlnn::kFeatureDescLength)) return false;
  model_.featureDesc = mlnn::featureDescriptionFromBytes(image_ + mlnn::kFeatureDescOffset);
  std::string text;
  model_.featureDesc.serialize(text);
  std::cerr << "info: deserializeBinary: feature desc: " << text << "\n";
  return true;
}

// "ERRROR" is fixed by the format's users.
bool ImageReader::readNormalisation() {
  if (!has(mlnn::kMinvalsLengthOffset, sizeof(int32_t))) return false;
  const int32_t minvalsLength = int32At(mlnn::kMinvalsLengthOffset);
  if (minvalsLength != mlnn::kDeltasNormLength) {
    std::cerr << "ERRROR: deserializeBinary: deltas min length (" << minvalsLength
              << ") does not match expected length (" << mlnn::kDeltasNormLength << ")\n";
    return false;
  }
  if (!has(mlnn::kMinvalsOffset, mlnn::kDeltasNormBytes)) return false;
  model_.deltasNorm.allocIfNeeded();
  floatsAt(mlnn::kMinvalsOffset, model_.deltasNorm.minvals);

  if (!has(mlnn::kNormvalsLengthOffset, sizeof(int32_t))) return false;
  const int32_t normvalsLength = int32At(mlnn::kNormvalsLengthOffset);
  if (normvalsLength != mlnn::kDeltasNormLength) {
    std::cerr << "ERRROR: deserializeBinary: deltas norm length (" << normvalsLength
              << ") does not match expected length (" << mlnn::kDeltasNormLength << ")\n";
    return false;
  }
  if (!has(mlnn::kNormvalsOffset, mlnn::kDeltasNormBytes)) return false;
  floatsAt(mlnn::kNormvalsOffset, model_.deltasNorm.normvals);
  return true;
}

bool ImageReader::readLayerCount() {
  if (!has(mlnn::kLayerCountOffset, sizeof(int32_t))) return false;
  const int32_t count = int32At(mlnn::kLayerCountOffset);
  const auto room =
      static_cast<int64_t>((length_ - mlnn::kHeadLength) / mlnn::kMinLayerRecordLength);
  if (count < 0 || count > room + mlnn::kMissingLayersAllowed) {
    std::cerr << "ERROR: MultiLayerNNModel::deserializeBinary: invalid layer count " << count
              << "\n";
    return false;
  }
  mlnn::resizeStack(model_.layers, static_cast<std::size_t>(count));
  mlnn::fillMissingLayers(model_.layers);
  return true;
}

bool ImageReader::readLayers() {
  // Positions are ints to callers, so records beyond the largest int are out of reach.
  const std::size_t end = std::min(length_, static_cast<std::size_t>(kMaxImageLength));
  for (std::size_t i = 0; i < model_.layers.size() && position_ < length_; ++i) {
    const auto available = static_cast<int>(end - position_);
    const int consumed = model_.layers[i]->deserializeBinary(image_ + position_, available);
    if (consumed <= 0) {
      std::cerr << "ERROR: MultiLayerNNModel::deserializeBinary: could not read layer index: " << i
                << "\n";
      return false;
    }
    position_ += static_cast<std::size_t>(consumed);
  }
  if (position_ != length_) {  // a warning only
    std::cerr << "ERROR: MultiLayerNNModel::deserializeBinary: problem deserializing model\n";
  }
  return true;
}

bool ImageReader::checksumMatches() const {
  const auto stored = static_cast<uint32_t>(int32At(mlnn::kChecksumOffset));
  const uint32_t computed = model_.checksum();
  if (computed == stored) return true;
  std::cerr << "ERROR: MultiLayerNNModel::deserializeBinary: checksums did not match (" << stored
            << " != " << computed << ")\n";
  return false;
}

}  // namespace

int MultiLayerNNModel::binarySerializedLength() const {
  const int64_t length = imageLength(*this);
  if (length <= kMaxImageLength) return static_cast<int>(length);
  std::cerr << "ERROR: MultiLayerNNModel: model is too large for a binary image\n";
  return -1;
}

uint32_t MultiLayerNNModel::checksum() const {
  auto sum = static_cast<uint32_t>(layers.size());
  for (const NNLayer* layer : layers) sum += mlnn::layerOrEmpty(layer).checksum();
  return sum;
}

int MultiLayerNNModel::serializeBinary(char* buf) const {
  if (binarySerializedLength() < 0) return -1;
  mlnn::ByteWriter writer(buf);
  writer.bytes(mlnn::kMagic, mlnn::kMagicLength);
  writer.uint32(checksum());
  writer.int32(mlnn::kFeatureDescLength);
  writer.bytes(&featureDesc, sizeof featureDesc);
  writeArray(writer, deltasNorm.minvals);
  writeArray(writer, deltasNorm.normvals);
  writer.int32(static_cast<int32_t>(layers.size()));
  auto length = static_cast<int>(writer.length());
  for (const NNLayer* layer : layers) {
    length += mlnn::layerOrEmpty(layer).serializeBinary(buf + length);
  }
  return length;
}

int MultiLayerNNModel::deserializeBinary(const char* buf, unsigned int len) {
  return ImageReader(buf, len, *this).read();
}
